#pragma once

// Private to the stand-in: the shared state of one Server and the helpers its services use. Each service
// (sign-in, gateway, rates) lives in its own file; all of them run with State::mutex held.

#include "server.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QMap>
#include <QSet>
#include <QTemporaryDir>

#include <httplib.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace standin
{

inline const QString kReadWork = QStringLiteral("read:jira-work");
inline const QString kWriteWork = QStringLiteral("write:jira-work");
inline const QString kReadUser = QStringLiteral("read:jira-user");
inline const QString kOffline = QStringLiteral("offline_access");
inline const QString kNoIssue = QStringLiteral("Issue does not exist or you do not have permission to see it.");

QString randomHex(int bytes); // `bytes` a multiple of 4
QString base64Url(const QByteArray &data);
QString fromStd(const std::string &text);
void answer(httplib::Response &res, int status, const QByteArray &body,
    const char *contentType = "application/json;charset=UTF-8");
void answerJson(httplib::Response &res, int status, const QJsonObject &object);
void answerJson(httplib::Response &res, int status, const QJsonArray &array);

// Refresh tokens rotate as Atlassian's do: a use retires the family's live token. A retired token used again
// after the leeway has leaked: nothing is retired and false tells the caller to revoke the whole family.
template<typename Tokens, typename Token>
bool rotateFamily(Tokens &tokens, const Token &used, const QDateTime &now, qint64 leeway)
{
    if (used.rotatedAt.isValid() && used.rotatedAt.secsTo(now) >= leeway)
        return false;
    for (Token &member : tokens) {
        if (member.family == used.family && !member.rotatedAt.isValid())
            member.rotatedAt = now;
    }
    return true;
}
QJsonObject jiraErrors(const QStringList &messages, const QJsonObject &errors = {});
// Closes the connection under the running request without an answer; what the server writes afterwards
// goes nowhere. The client sees the connection end, which is what a lost answer looks like.
void dropConnection(const httplib::Request &req, httplib::Response &res);

struct AccessToken {
    QString accountId;
    QStringList scopes;
    QStringList cloudIds;
    QDateTime expiresAt;
    QString family; // empty: issued directly, not through a sign-in
};

struct RefreshToken {
    QString accountId;
    QStringList scopes;
    QStringList cloudIds;
    QString family;
    QDateTime rotatedAt; // invalid: still the live token of its family
};

struct SignIn {
    enum class Stage { Pending, Approved, Denied, Done };
    QString challenge;
    Stage stage = Stage::Pending;
    QDateTime started;
};

struct StoredWorklog {
    Worklog worklog;
    QString issueId;
    QDateTime updated;
    qint64 sequence = 0;
};

struct Rate {
    double rate = 0;
    QDate date;
};

struct Server::State {
    Mode mode = Mode::Services;

    mutable std::mutex mutex;
    std::condition_variable wake; // wakes slow answers when the server stops
    bool stopping = false;

    std::unique_ptr<httplib::SSLServer> http;
    std::thread thread;
    quint16 port = 0;
    QString error;
    std::unique_ptr<QTemporaryDir> certDir;
    bool admin = false;

    QMap<QString, User> users;
    QStringList userOrder;
    QList<Site> sites;
    QMap<QString, Issue> issues; // by upper-case key
    QHash<QString, QString> movedKeys; // old key -> new key
    QList<StoredWorklog> worklogs;
    qint64 nextWorklogId = 20001;
    qint64 nextIssueId = 10001;
    qint64 sequence = 0;
    int pageSize = 5000;
    int worklogLimit = 10000;
    QSet<QString> closedIssues; // by upper-case key
    QSet<QString> untrackedIssues;
    QSet<QPair<QString, QString>> noWorkPermission; // (key, account)
    int burstLimit = 0;
    int burstWindowMs = 1000;
    std::deque<qint64> burstTimes; // monotonic ms of the gateway requests within the window
    int issueWriteLimit = 0;
    int issueWriteWindowMs = 1000;
    QHash<QString, std::deque<qint64>> issueWrites;

    QHash<QString, AccessToken> accessTokens;
    QHash<QString, RefreshToken> refreshTokens;
    QString authHost = QStringLiteral("127.0.0.1");
    QString authUrlBase;
    QString grantAccount;
    QStringList grantScopes = {kReadWork, kWriteWork, kReadUser, kOffline};
    qint64 tokenLifetime = 3600;
    qint64 reuseLeeway = 600;
    qint64 signInLifetime = 600;
    QHash<QString, SignIn> signIns;

    QMap<QPair<QString, QString>, Rate> rates;

    QList<Fault> faults;
    QList<ReceivedRequest> received;

    // Everything below runs with `mutex` held.
    void handle(const httplib::Request &req, httplib::Response &res, std::unique_lock<std::mutex> &lock);
    std::optional<Fault> takeFault(const QString &method, const QString &path);
    // Counts one request against a sliding window; false (and 429 in `res`) when the window is full.
    static bool withinLimit(
        std::deque<qint64> &times, int limit, int windowMs, httplib::Response &res, const char *reason);
    bool refuseUnsupportedMedia(const httplib::Request &req, httplib::Response &res);

    void oauthStart(const httplib::Request &req, httplib::Response &res);
    void authorize(const httplib::Request &req, httplib::Response &res);
    void oauthPoll(const httplib::Request &req, httplib::Response &res);
    void oauthRefresh(const httplib::Request &req, httplib::Response &res);
    QJsonObject issueTokens(
        const QString &accountId, const QStringList &scopes, const QStringList &cloudIds, const QString &family);

    const AccessToken *authorizeBearer(
        const httplib::Request &req, httplib::Response &res, const QString &scope, const QString &cloudId);
    void gateway(const httplib::Request &req, httplib::Response &res, const QString &path);
    void accessibleResources(const httplib::Request &req, httplib::Response &res);
    void myself(httplib::Response &res, const AccessToken &token, const Site &site);
    void issue(const httplib::Request &req, httplib::Response &res, const AccessToken &token, const Site &site,
        const QString &key);
    void listWorklogs(const httplib::Request &req, httplib::Response &res, const AccessToken &token, const Site &site,
        const QString &key);
    void createWorklog(const httplib::Request &req, httplib::Response &res, const AccessToken &token, const Site &site,
        const QString &key);
    void rate(const httplib::Request &req, httplib::Response &res, const QString &base, const QString &quote);

    QString currentKey(const QString &key) const; // follows moves
    Issue *findIssue(const QString &key, const QString &cloudId);
    const Site *findSite(const QString &cloudId) const;
    QJsonObject userJson(const QString &accountId, const Site &site, bool details) const;
    QJsonObject worklogJson(const StoredWorklog &stored, const Site &site, const QString &zone, bool properties) const;
    QString storeWorklog(const Worklog &worklog);
    std::optional<double> lookupRate(const QString &base, const QString &quote, QDate *date) const;
    void seedRates();
    static const QStringList &currencies();
};

} // namespace standin
