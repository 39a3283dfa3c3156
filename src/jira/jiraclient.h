#pragma once

#include "jira/oauthsession.h"

#include <QDateTime>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

#include <atomic>
#include <chrono>
#include <functional>

// Every Jira Cloud REST call the program makes, through the API gateway with the session's bearer token.
// Calls are synchronous and run on `queue()`; each returns decoded JSON or throws "JiraError". Issue keys and
// site identifiers are validated before they reach a URL.
class JiraClient
{
public:
    using Progress = std::function<void(qint64 page, qint64 pages)>;
    using Sleeper = std::function<void(std::chrono::milliseconds)>;
    using WaitNotice = std::function<void(const QString &text)>;

    // How long a read waits for a rate-limited or unavailable Jira: one wait at most, all waits of one request
    // together at most, and the most attempts.
    static constexpr std::chrono::seconds kLongestWait {60};
    static constexpr std::chrono::seconds kLongestTotalWait {180};
    static constexpr int kMostAttempts = 8;
    // The pause after an answer that says little of the request budget is left: Jira's burst limits count per
    // second, so a request after it starts a fresh second.
    static constexpr std::chrono::seconds kPacingPause {1};
    // Jira keeps at most this many characters in one worklog property value.
    static constexpr qsizetype kMaxPropertyLength = 32768;

    JiraClient();
    // Keeps the credentials under another secret-store service (tests that run side by side).
    explicit JiraClient(const QString &credentialService);

    OAuthSession &session() { return m_session; }

    // Forwarded to the session.
    SerialQueue &queue() { return m_session.queue(); }
    qint64 generation() const { return m_session.generation(); }
    void setGeneration(qint64 generation) { m_session.setGeneration(generation); }
    void connect(const QString &origin, OAuthSession::Completion completion);
    void disconnect();
    QString access();
    QVariant request(
        const QString &url, const QString &method, const QVariant &body, const QString &token, qint64 &status) const;

    // False while offline, so nothing that asks first contacts Jira.
    bool connected() const;
    bool offline() const { return m_offline.load(); }
    // Set on the main thread, only ever from false to true.
    void setOffline(bool offline) { m_offline.store(offline); }

    // Gateway origin + `path` with the current token; a non-2xx status throws "Jira returned HTTP ...", with
    // Jira's own reason as the failure's detail. A read that Jira limits (429, 503) waits as Jira asks and is
    // sent again; a read refused with 401 is sent once more with a renewed token. A write is never resent.
    QVariant api(
        const QString &path, const QString &method, const QVariant &body = {}, HTTPTransport::Decoder decode = nullptr);

    // Told (on the work queue) each time a read waits for Jira, with the text to show. Set before any call.
    void setWaitNotice(WaitNotice notice) { m_waitNotice = std::move(notice); }
    // Replaces the pause of those waits (tests). Set before any call.
    void setSleeper(Sleeper sleeper) { m_sleeper = std::move(sleeper); }

    // "/ex/jira/<cloud>/rest/api/3"; throws when the identifier is empty or outside [A-Za-z0-9-].
    static QString prefix(const QString &cloud);
    // The key when it matches "^[A-Z][A-Z0-9_]*-[0-9]+$"; throws otherwise.
    static QString safeIssue(const QString &key);

    QVariantList resources();
    QVariantMap identity(const QString &cloud);
    // {"title", optionally "estimate_seconds" and "remaining_seconds"} (records/issuedetails.h).
    QVariantMap issueDetails(const QString &issue, const QString &cloud);
    // All pages of the issue's worklogs in Jira's order; invalid bounds mean none.
    QVariantList worklogs(const QString &issue, const QString &cloud, const QDateTime &startedAfter,
        const QDateTime &startedBefore, const Progress &progress);
    QVariantList worklogs(const QString &issue, const QString &cloud, const Progress &progress);
    QVariantList worklogs(const QString &issue, const QString &cloud);
    // Posts one worklog without notifying watchers; `mode` "auto" adjusts the estimate, anything else leaves it.
    QVariantMap post(const QVariantMap &payload, const QString &issue, const QString &cloud, const QString &mode);

private:
    void pause(std::chrono::milliseconds delay);
    std::chrono::milliseconds retryDelay(qint64 status, const HTTPTransport::RetryHint &hint, int attempt) const;

    OAuthSession m_session;
    std::atomic<bool> m_offline {false};
    WaitNotice m_waitNotice;
    Sleeper m_sleeper;
};
