#pragma once

#include "jira/oauthsession.h"

#include <QDateTime>
#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

#include <atomic>
#include <functional>

// Every Jira Cloud REST call the program makes, through the API gateway with the session's bearer token.
// Calls are synchronous and run on `queue()`; each returns decoded JSON or throws "JiraError". Issue keys and
// site identifiers are validated before they reach a URL.
class JiraClient
{
public:
    using Progress = std::function<void(qint64 page, qint64 pages)>;

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

    // Gateway origin + `path` with the current token; a non-2xx status throws "Jira returned HTTP ...".
    QVariant api(const QString &path, const QString &method, const QVariant &body = {});

    // "/ex/jira/<cloud>/rest/api/3"; throws when the identifier is empty or outside [A-Za-z0-9-].
    static QString prefix(const QString &cloud);
    // The key when it matches "^[A-Z][A-Z0-9_]*-[0-9]+$"; throws otherwise.
    static QString safeIssue(const QString &key);

    QVariantList resources();
    QVariantMap identity(const QString &cloud);
    // {"title", optionally "estimate_seconds" and "remaining_seconds"}.
    QVariantMap issueDetails(const QString &issue, const QString &cloud);
    // All pages of the issue's worklogs in Jira's order; invalid bounds mean none.
    QVariantList worklogs(const QString &issue, const QString &cloud, const QDateTime &startedAfter,
        const QDateTime &startedBefore, const Progress &progress);
    QVariantList worklogs(const QString &issue, const QString &cloud, const Progress &progress);
    QVariantList worklogs(const QString &issue, const QString &cloud);
    // Posts one worklog without notifying watchers; `mode` "auto" adjusts the estimate, anything else leaves it.
    QVariantMap post(const QVariantMap &payload, const QString &issue, const QString &cloud, const QString &mode);

private:
    OAuthSession m_session;
    std::atomic<bool> m_offline {false};
};
