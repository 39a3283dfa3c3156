#pragma once

#include "platform/clock.h"

#include <QDateTime>
#include <QHash>
#include <QSet>
#include <QString>
#include <QVariantMap>

#include <functional>
#include <memory>

class JiraClient;

// Issue titles and estimates for display, answered at once from "jira-titles.plist" and refreshed in the
// background on the client's queue when missing or a day old. Limits how many fetches run and how often, and
// backs off for 15 minutes after a failure. Used on the main thread only.
class IssueTitleCache
{
public:
    // `clock` (not owned) dates entries and attempts; nullptr means `Clock::shared()`.
    IssueTitleCache(JiraClient &client, const QString &directory, const Clock *clock = nullptr);
    ~IssueTitleCache();

    // The stored entry ({"title", "date", "estimate_seconds"?, "remaining_seconds"?}, records/issuedetails.h) or
    // an empty map.
    QVariantMap cachedDetails(const QString &issue, const QString &cloud) const;
    // The stored title or null. Neither call fetches.
    QString cachedTitle(const QString &issue, const QString &cloud) const;
    // The stored title (possibly stale) or null; may start a background fetch, whose result arrives through
    // `didChange`.
    QString title(const QString &issue, const QString &cloud, bool refresh);

    const std::function<void()> &didChange() const { return m_didChange; }
    void setDidChange(std::function<void()> didChange) { m_didChange = std::move(didChange); }

    QString path() const;

private:
    void finish(const QString &key, qint64 generation, const QVariantMap &details);
    void write() const;
    QDateTime now() const;

    JiraClient &m_client;
    QString m_directory;
    const Clock *m_clock;
    QVariantMap m_entries;
    QHash<QString, QDateTime> m_attempts;
    QSet<QString> m_inFlight;
    QDateTime m_backOffUntil;
    std::function<void()> m_didChange;
    // Fetch results check it on the main thread, so a result arriving after the cache is gone is dropped.
    std::shared_ptr<IssueTitleCache *> m_self;
};
