#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <memory>

// A local HTTPS stand-in for the three services the program talks to: the sign-in service (broker), the Jira
// Cloud API gateway and the exchange-rate service. One Server serves all three on one origin
// ("https://127.0.0.1:PORT") with a throw-away certificate made at start. Every member is thread-safe; the
// server answers on its own threads, so tests may call it from anywhere while a client talks to it.
namespace standin
{

struct User {
    QString accountId;
    QString displayName;
    // The Jira profile zone: every date-time the gateway answers for this user is written in it.
    QString timeZone = QStringLiteral("Europe/Berlin");
    QString emailAddress; // empty: left out of answers, as Jira does for hidden addresses
    QString locale = QStringLiteral("en_US");
};

struct Site {
    QString cloudId;
    QString name;
    QString url; // "https://<site>.atlassian.net"; used for the `self` links
    QStringList scopes;
};

struct Issue {
    QString key; // upper-case; a lookup in another case answers with this key
    QString id; // numeric text; empty: assigned
    QString summary;
    // Jira's "timetracking" object as it should be answered ({} when nothing is estimated or logged).
    QJsonObject timetracking;
    QString cloudId; // empty: the issue is visible on every site
};

// A comment of one paragraph of plain text in Atlassian Document Format, as Jira stores worklog comments.
QJsonObject commentDocument(const QString &text);

// A loopback TCP port that was free a moment ago, for a child process that must be told its port up front.
quint16 freeLoopbackPort();

struct Worklog {
    QString issueKey;
    QString authorAccountId;
    QDateTime started;
    qint64 seconds = 0;
    QJsonObject comment; // Atlassian Document Format; empty: no comment
    QJsonArray properties; // [{"key","value"}]
    QDateTime created; // invalid: now
    QString id; // empty: assigned
};

// One request as the server received it.
struct ReceivedRequest {
    QString method;
    QString path; // without the query
    QString query; // raw, without "?"
    QList<QPair<QString, QString>> headers; // names lower-cased
    QByteArray body;
    QDateTime receivedAt;

    QString header(const QString &name) const; // first value, null when absent
    QString queryItem(const QString &name) const; // decoded, null when absent
};

// A fault rule: the next `times` requests whose method and path match are answered as the kind says instead
// of normally. Rules are tried in the order they were added; a rule that is used up is removed.
struct Fault {
    enum class Kind {
        Status, // answer `status` with `body`, `contentType` and `headers`
        Slow, // wait `delayMs`, then answer normally (stop() cuts the wait short)
        Redirect, // 302 with Location: `location`
        Drop, // close the connection without answering, without handling the request
        CreateThenDrop, // handle the request (a POST worklog is stored), then close without answering
        CreateThenReply, // handle the request (a POST worklog is stored), then answer as for Status instead
        Trickle, // answer 200 at once, then one byte of body every `delayMs` and never finish
    };

    QString method; // "GET", "POST", ...; empty: any
    QString pathPattern; // regular expression searched in the path (without query); empty: any
    int times = 1; // negative: for ever
    Kind kind = Kind::Status;
    int status = 503;
    QByteArray body;
    QByteArray contentType = "application/json";
    QList<QPair<QByteArray, QByteArray>> headers;
    int delayMs = 0;
    QString location;

    // Ready-made rules for the faults the real services show.
    static Fault statusReply(const QString &method, const QString &pathPattern, int status, const QByteArray &body,
        const QList<QPair<QByteArray, QByteArray>> &headers = {}, int times = 1);
    static Fault tooManyRequests(const QString &method, const QString &pathPattern, int retryAfterSeconds = 1,
        int times = 1); // JSON-less 429 with Retry-After, X-RateLimit-Reset and RateLimit-Reason
    static Fault tooManyRequestsHtml(const QString &method, const QString &pathPattern, int times = 1);
    // An HTML 503; with `retryAfterSeconds` of 0 or more it carries Retry-After, as some of Jira's do.
    static Fault serviceUnavailable(
        const QString &method, const QString &pathPattern, int times = 1, int retryAfterSeconds = -1);
    static Fault payloadTooLarge(const QString &method, const QString &pathPattern, int times = 1);
    static Fault scopeMismatch(const QString &method, const QString &pathPattern, int times = 1);
    static Fault invalidGrant(int times = 1); // POST /oauth/refresh answers 403 invalid_grant
    static Fault slow(const QString &method, const QString &pathPattern, int delayMs, int times = 1);
    static Fault redirect(const QString &method, const QString &pathPattern, const QString &location, int times = 1);
    static Fault drop(const QString &method, const QString &pathPattern, int times = 1);
    // Never idle for `intervalMs`, never complete: only a limit on the whole transfer ends it.
    static Fault trickle(const QString &method, const QString &pathPattern, int intervalMs, int times = 1);
    static Fault createThenDrop(int times = 1); // POST .../issue/{key}/worklog
    // POST .../issue/{key}/worklog stores the worklog but answers `status` with `body` (a 201 without an id, a
    // 500 or a 504 after the fact): the client cannot tell whether it exists.
    static Fault createThenReply(int status, const QByteArray &body, int times = 1);
};

class Server
{
public:
    enum class Mode {
        Services, // the broker, the gateway and the rate service
        Recorder, // records every request and answers 200 {} (a target for redirect tests)
    };

    explicit Server(Mode mode = Mode::Services);
    ~Server(); // stops
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Binds 127.0.0.1 on `port` (0: a free port chosen by the system) and serves on background threads. Makes
    // the certificate on the first start. Returns false (with `errorString`) when it cannot. Sets SIGPIPE to be
    // ignored in the process: writing to a connection a fault dropped must not end a test.
    bool start(quint16 port = 0);
    // Stops serving; waits for requests in progress, cutting short the waits of slow-answer faults.
    void stop();
    bool isRunning() const;
    QString errorString() const;

    quint16 port() const;
    QString origin() const; // "https://127.0.0.1:PORT"
    QString caFile() const; // PEM certificate of the throw-away authority that signed the server certificate
    QString certFile() const; // PEM server certificate (SAN IP:127.0.0.1, DNS:localhost)

    // Serves the /__admin/ endpoints (see README.md). Off by default.
    void setAdminEnabled(bool enabled);

    // --- data ---
    void addUser(const User &user);
    void addSite(const Site &site);
    void addIssue(const Issue &issue); // replaces an issue with the same key
    QString addWorklog(const Worklog &worklog); // returns the id
    // The issue now answers under `newKey`; the old key still finds it and answers with the new one, as a moved
    // Jira issue does. Its worklogs move with it.
    bool moveIssue(const QString &oldKey, const QString &newKey);
    // One user (in `timeZone` when given), one site and a few issues: the demo and the executable's --seed-demo.
    void seedDemo(const QString &timeZone = {});
    // Every worklog of an issue as the gateway would answer it to `viewerAccountId` (empty: the author's own
    // zone), properties included, in created order.
    QJsonArray worklogs(const QString &issueKey, const QString &viewerAccountId = {}) const;
    int worklogCount(const QString &issueKey) const;
    void clearWorklogs();

    // --- gateway behaviour ---
    void setPageSize(int maxResults); // the cap on maxResults (default 5000)
    int pageSize() const;
    void setWorklogLimit(int perIssue); // POST answers 413 when an issue already holds this many (default 10000)
    // A burst limit over every gateway request: more than `requests` within `windowMs` answer 429 with
    // Retry-After (0: no limit, the default).
    // A closed issue in a non-editable workflow state: work cannot be logged on it (400).
    void setIssueEditable(const QString &key, bool editable);
    // Time tracking switched off: the issue's worklogs answer 404, as documented.
    void setTimeTracking(const QString &key, bool enabled);
    // An account that may see the issue but lacks the "Work on issues" permission: posting answers 403.
    void setWorkPermission(const QString &key, const QString &accountId, bool granted);
    void setBurstLimit(int requests, int windowMs = 1000);
    // More than `writes` worklog POSTs to one issue within `windowMs` answer 429 with RateLimit-Reason
    // "jira-per-issue-on-write" (0: no limit, the default).
    void setIssueWriteLimit(int writes, int windowMs = 1000);
    // An access token for `accountId` with these scopes, valid for `expiresIn` seconds on the given sites
    // (empty: every site).
    QString issueAccessToken(
        const QString &accountId, const QStringList &scopes, qint64 expiresIn = 3600, const QStringList &cloudIds = {});
    void revokeAccessToken(const QString &token);
    // A token answer as the sign-in service gives it: access and refresh token of a new family.
    QJsonObject issueTokenPair(const QString &accountId, const QStringList &scopes);

    // --- sign-in service ---
    void setAuthHost(const QString &host); // host of the authorization URL (default "127.0.0.1")
    // Replaces the base of the authorization URL the broker hands out ("?audience=...&state=..." is appended);
    // empty: "https://<auth host>:PORT/authorize".
    void setAuthorizationUrlBase(const QString &base);
    // Who a sign-in approves and with which scopes (default: the first user added, all four scopes).
    void setSignInGrant(const QString &accountId, const QStringList &scopes);
    void setTokenLifetime(qint64 expiresInSeconds); // expires_in of issued tokens (default 3600)
    // A rotated refresh token still works this long (default 600, Atlassian's leeway); reused later, the whole
    // family is revoked.
    void setRefreshReuseLeeway(qint64 seconds);
    void setSignInLifetime(qint64 seconds); // a pending sign-in expires after this long (default 600)
    QStringList pendingSignIns() const; // states started but not yet approved
    bool approve(const QString &state); // what fetching the authorization page does
    bool deny(const QString &state); // polling then answers 400 access_denied
    QStringList liveRefreshTokens() const;

    // --- rate service ---
    void setRate(const QString &base, const QString &quote, double rate, const QDate &date = {});

    // --- faults and records ---
    void addFault(const Fault &fault);
    void clearFaults();
    QList<ReceivedRequest> requests() const; // /__admin/ requests are not recorded
    QList<ReceivedRequest> requests(const QString &method, const QString &pathPattern) const;
    int hitCount() const;
    void clearRequests();

private:
    struct State;
    std::unique_ptr<State> d;
};

} // namespace standin
