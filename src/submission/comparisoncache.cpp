#include "submission/comparisoncache.h"

#include "platform/clock.h"
#include "records/comparison.h"
#include "records/draft.h"
#include "worklogs/compare.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QSet>

#include <algorithm>

namespace
{

const QString kNotChecked = QStringLiteral("Not checked yet");

QString text(const QVariantMap &map, const QString &key)
{
    return map.value(key).toString();
}

// Only settled, unreceipted drafts with something left to post are cached: a receipt or an exclusion is shown
// instead of a comparison, and a running session changes all the time.
bool takesPart(const QVariantMap &draft)
{
    if (!text(draft, DraftKey::kJiraReceiptState).isEmpty())
        return false;
    if (!draft.value(DraftKey::kJiraExclusion).toMap().isEmpty())
        return false;
    if (draft.value(DraftKey::kSourceRunning).toBool())
        return false;
    const auto remaining = draft.constFind(DraftKey::kRemainingSeconds);
    if (remaining != draft.constEnd() && remaining->toLongLong() == 0)
        return false;
    return true;
}

double checkedAt(const QVariantMap &entry)
{
    return entry.value(CachedComparisonKey::kCheckedAt).toDouble();
}

} // namespace

ComparisonCache::ComparisonCache(const QString &directory, const Clock *clock)
    : m_directory(directory)
    , m_clock(clock)
{
}

QString ComparisonCache::path() const
{
    return m_directory + QStringLiteral("/jira-comparisons.json");
}

QVariantMap ComparisonCache::entries() const
{
    QFile in(path());
    if (!in.open(QIODevice::ReadOnly))
        return {};
    const QJsonDocument document = QJsonDocument::fromJson(in.readAll());
    if (!document.isObject())
        return {};
    return document.object().toVariantMap();
}

QString ComparisonCache::keyForDraft(const QVariantMap &draft, const QString &cloud, const QString &account)
{
    return cloud + QLatin1Char('|') + account + QLatin1Char('|') + text(draft, DraftKey::kSourceKey);
}

void ComparisonCache::write(const QVariantMap &entries) const
{
    const QByteArray data = QJsonDocument(QJsonObject::fromVariantMap(entries)).toJson(QJsonDocument::Compact);
    const QFileDevice::Permissions privateFile = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
    QSaveFile out(path());
    if (!out.open(QIODevice::WriteOnly))
        return;
    out.setPermissions(privateFile);
    if (out.write(data) != data.size() || !out.commit()) {
        out.cancelWriting();
        return;
    }
    QFile::setPermissions(path(), privateFile);
}

void ComparisonCache::saveDrafts(const QVariantList &drafts, const QString &cloud, const QString &account) const
{
    save(drafts, cloud, account, (m_clock ? *m_clock : Clock::shared()).wallNow());
}

void ComparisonCache::saveDrafts(
    const QVariantList &drafts, const QString &cloud, const QString &account, const QDateTime &now)
{
    save(drafts, cloud, account, now);
}

void ComparisonCache::save(
    const QVariantList &drafts, const QString &cloud, const QString &account, const QDateTime &now) const
{
    if (cloud.isEmpty() || account.isEmpty())
        return;
    QVariantMap all = entries();
    QSet<QString> saved;
    for (const QVariant &item : drafts) {
        const QVariantMap draft = item.toMap();
        if (!takesPart(draft) || text(draft, DraftKey::kSourceKey).isEmpty())
            continue;
        const QString status = text(draft, DraftKey::kStatus);
        QVariantMap entry {
            {CachedComparisonKey::kFingerprint, JRComparisonFingerprint(draft)},
            {CachedComparisonKey::kStatus, status.isEmpty() ? kNotChecked : status},
            {CachedComparisonKey::kEligible, draft.value(DraftKey::kEligible).toBool()},
            {CachedComparisonKey::kHasManualMatches, !draft.value(DraftKey::kManualMatches).toList().isEmpty()},
            {CachedComparisonKey::kCheckedAt, double(now.toMSecsSinceEpoch()) / 1000.0},
        };
        if (draft.contains(DraftKey::kExisting))
            entry.insert(CachedComparisonKey::kExisting, draft.value(DraftKey::kExisting));
        const QString key = keyForDraft(draft, cloud, account);
        all.insert(key, entry);
        saved.insert(key);
    }

    if (all.size() > kMaximumEntries) {
        // Entries of this save go last, whatever their stamps: a clock set back makes older entries look newer,
        // and trimming must never drop the check just made.
        QStringList keys = all.keys();
        std::stable_sort(keys.begin(), keys.end(), [&all, &saved](const QString &left, const QString &right) {
            const bool leftSaved = saved.contains(left);
            if (leftSaved != saved.contains(right))
                return !leftSaved;
            return checkedAt(all.value(left).toMap()) < checkedAt(all.value(right).toMap());
        });
        // Removes only about half of a large excess per save, as the file has always been trimmed; the usual
        // excess of one is removed entirely and later saves trim the rest.
        qsizetype removed = 0;
        do {
            all.remove(keys.at(removed));
            ++removed;
        } while (removed < all.size() - kMaximumEntries);
    }
    write(all);
}

void ComparisonCache::applyToDrafts(
    QVariantList &drafts, const QString &cloud, const QString &account, double freshness) const
{
    applyToDrafts(drafts, cloud, account, (m_clock ? *m_clock : Clock::shared()).wallNow(), freshness);
}

void ComparisonCache::applyToDrafts(
    QVariantList &drafts, const QString &cloud, const QString &account, const QDateTime &now, double freshness) const
{
    if (cloud.isEmpty() || account.isEmpty())
        return;
    const QVariantMap all = entries();
    for (QVariant &item : drafts) {
        QVariantMap draft = item.toMap();
        if (!takesPart(draft))
            continue;
        const QVariantMap entry = all.value(keyForDraft(draft, cloud, account)).toMap();
        if (entry.isEmpty() || text(entry, CachedComparisonKey::kFingerprint) != JRComparisonFingerprint(draft))
            continue;

        const QVariant stamp = entry.value(CachedComparisonKey::kCheckedAt);
        const double checked = stamp.toDouble();
        // A check stamped in the future (the clock was set back since) is stale, not current for ever.
        const double age = double(now.toMSecsSinceEpoch()) / 1000.0 - checked;
        const bool fresh = age >= 0 && age <= freshness;
        const bool current = fresh && !entry.value(CachedComparisonKey::kHasManualMatches).toBool();
        QString status = text(entry, CachedComparisonKey::kStatus);
        if (status.isEmpty())
            status = kNotChecked;
        const bool eligible = current && entry.value(CachedComparisonKey::kEligible).toBool();

        draft.insert(DraftKey::kStatus, current ? status : status + QStringLiteral(" · Refresh required"));
        draft.insert(DraftKey::kExisting, entry.value(CachedComparisonKey::kExisting, 0).toLongLong());
        draft.insert(DraftKey::kEligible, eligible);
        draft.insert(DraftKey::kInclude, eligible);
        draft.insert(DraftKey::kManualMatches, QVariantList {});
        draft.insert(DraftKey::kComparisonAt,
            stamp.isValid() && !stamp.isNull() ? QVariant(QDateTime::fromMSecsSinceEpoch(qint64(checked * 1000.0)))
                                               : QVariant());
        draft.insert(DraftKey::kComparisonCurrent, current);
        draft.insert(DraftKey::kComparisonCached, true);
        item = draft;
    }
}
