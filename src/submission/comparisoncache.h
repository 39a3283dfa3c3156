#pragma once

#include <QDateTime>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

class Clock;

// The last comparison outcome per draft, Jira site and account ("jira-comparisons.json"), so the Worklogs
// window can show results at once, after a restart too. Unlike the receipt ledger it is disposable: an
// unusable file is an empty cache, and write failures are ignored.
class ComparisonCache
{
public:
    static constexpr int kMaximumEntries = 2000;

    // `clock` (not owned; nullptr means Clock::shared()) says when a comparison is made and how old a stored one is.
    explicit ComparisonCache(const QString &directory, const Clock *clock = nullptr);

    QString path() const;
    QVariantMap entries() const;
    static QString keyForDraft(const QVariantMap &draft, const QString &cloud, const QString &account);
    void write(const QVariantMap &entries) const;

    // Stores the outcome of a check just made, stamped with the clock's time.
    void saveDrafts(const QVariantList &drafts, const QString &cloud, const QString &account) const;
    // The same, stamped with `now`.
    void saveDrafts(const QVariantList &drafts, const QString &cloud, const QString &account, const QDateTime &now);
    // Applies stored outcomes in place; one older than `freshness` seconds, or one that involved manual matches,
    // is shown as needing a refresh and is not eligible.
    void applyToDrafts(QVariantList &drafts, const QString &cloud, const QString &account, double freshness) const;
    // The same, with ages measured at `now`.
    void applyToDrafts(QVariantList &drafts, const QString &cloud, const QString &account, const QDateTime &now,
        double freshness) const;

private:
    void save(const QVariantList &drafts, const QString &cloud, const QString &account, const QDateTime &now) const;

    QString m_directory;
    const Clock *m_clock = nullptr;
};
