#include "worklogs/topost.h"

#include "records/draft.h"
#include "records/session.h"
#include "worklogs/durations.h"
#include "worklogs/engineinternal.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

#include <QHash>
#include <QSet>

#include <algorithm>

using namespace jrinternal;

namespace
{

QVariantMap combined(std::vector<QVariantMap> group)
{
    std::stable_sort(group.begin(), group.end(), [](const QVariantMap &a, const QVariantMap &b) {
        const QString startedA = plainText(a.value(DraftKey::kStarted));
        const QString startedB = plainText(b.value(DraftKey::kStarted));
        if (startedA != startedB)
            return startedA < startedB;
        return plainText(a.value(DraftKey::kSourceKey)) < plainText(b.value(DraftKey::kSourceKey));
    });

    const QVariantMap &first = group.front();
    qint64 seconds = 0, logged = 0, remaining = 0, post = 0;
    QStringList keys;
    QVariantList keyList, sessions, amounts, manualMatches;
    for (const QVariantMap &draft : group) {
        const qint64 postSeconds = JRPostSeconds(draft);
        seconds = saturatingAdd(seconds, int64Value(draft.value(DraftKey::kSeconds)));
        logged = saturatingAdd(logged, int64Value(draft.value(DraftKey::kLoggedSeconds)));
        remaining = saturatingAdd(remaining, int64Value(draft.value(DraftKey::kRemainingSeconds)));
        post = saturatingAdd(post, postSeconds);
        const QString key = plainText(draft.value(DraftKey::kSourceKey));
        keys.append(key);
        keyList.append(key);
        sessions.append(mapValue(draft.value(DraftKey::kSession)));
        amounts.append(postSeconds);
        manualMatches.append(listValue(draft.value(DraftKey::kManualMatches)));
    }

    QVariantMap result = first;
    const QString sourceKey = JRHash(keys.join(u'|'));
    const QString firstIssue = plainText(first.value(DraftKey::kIssue));
    result.insert(DraftKey::kSourceKey, sourceKey);
    result.insert(DraftKey::kMarkerSeed, QString(sourceKey + u'|' + QString::number(logged) + u'|' + firstIssue));
    result.insert(DraftKey::kSeconds, seconds);
    result.insert(DraftKey::kLoggedSeconds, logged);
    result.insert(DraftKey::kRemainingSeconds, remaining);
    // Rounded once over the whole group, so that sub-minute fragments add up instead of vanishing.
    result.insert(DraftKey::kPostSeconds, JRRoundedSeconds(post));
    result.insert(DraftKey::kSourceKeys, keyList);
    result.insert(DraftKey::kSourceSessions, sessions);
    result.insert(DraftKey::kSourceAmounts, amounts);
    result.insert(DraftKey::kCombinedCount, qint64(group.size()));
    result.insert(DraftKey::kManualMatches, manualMatches);
    result.insert(DraftKey::kFragment, false);

    // A custom comment is kept only when every session of the group carries the very same one.
    bool keepCustom = isYes(first.value(DraftKey::kCommentCustom));
    const QVariant firstComment = first.value(DraftKey::kComment);
    for (const QVariantMap &draft : group) {
        if (!keepCustom)
            break;
        keepCustom = isYes(draft.value(DraftKey::kCommentCustom)) && draft.contains(DraftKey::kComment)
            && plainText(draft.value(DraftKey::kComment)) == plainText(firstComment);
    }
    if (keepCustom) {
        result.insert(DraftKey::kComment, plainText(firstComment));
        result.insert(DraftKey::kCommentCustom, true);
    } else {
        const QVariantMap session = mapValue(first.value(DraftKey::kSession));
        const auto description = session.constFind(SessionKey::kDescription);
        result.insert(DraftKey::kComment,
            description != session.constEnd() && !description->isNull() ? plainText(*description)
                                                                        : plainText(firstComment));
        result.insert(DraftKey::kCommentCustom, false);
    }
    return result;
}

} // namespace

QVariantList JRWorklogsToPost(const QVariantList &drafts)
{
    const bool combineDaily = JRCombineDailyByIssue();
    LocalDayCache days;
    std::vector<std::vector<QVariantMap>> groups;
    QHash<QString, size_t> openGroups;
    for (const QVariant &entry : drafts) {
        if (!isMap(entry))
            continue;
        const QVariantMap draft = entry.toMap();
        const QString key = combineKey(draft, combineDaily, &days);
        if (key.isNull()) {
            groups.push_back({draft});
            continue;
        }
        const auto open = openGroups.constFind(key);
        if (open != openGroups.constEnd()) {
            groups[*open].push_back(draft);
        } else {
            openGroups.insert(key, groups.size());
            groups.push_back({draft});
        }
    }

    QVariantList result;
    for (auto &group : groups) {
        if (group.size() == 1) {
            // A fragment is a sub-minute piece that only counts as part of its group, never on its own.
            if (isYes(group.front().value(DraftKey::kFragment)))
                continue;
            result.append(group.front());
            continue;
        }
        const QVariantMap draft = combined(std::move(group));
        if (JRPostSeconds(draft) >= 1)
            result.append(draft);
    }
    return result;
}

void JRDayWindow(const QVariantList &rows, QDateTime &from, QDateTime &to)
{
    QDateTime earliest, latest;
    for (const QVariant &row : rows) {
        const QDateTime started = JRDate(mapValue(row).value(DraftKey::kStarted));
        if (!started.isValid())
            continue;
        if (!earliest.isValid() || started < earliest)
            earliest = started;
        if (!latest.isValid() || started > latest)
            latest = started;
    }
    if (!earliest.isValid()) {
        from = QDateTime();
        to = QDateTime();
        return;
    }
    // An hour of margin on both sides catches worklogs whose stored offset differs from the local one.
    constexpr qint64 kMarginSeconds = 3600;
    from = localDayStart(localDay(earliest)).addSecs(-kMarginSeconds);
    to = localDayStart(localDay(latest).addDays(1)).addSecs(kMarginSeconds);
}

QStringList JRSourceKeysForRows(const QVariantList &rows)
{
    QStringList keys;
    QSet<QString> seen;
    const auto add = [&](const QString &key) {
        if (key.isEmpty() || seen.contains(key))
            return;
        seen.insert(key);
        keys.append(key);
    };
    for (const QVariant &row : rows) {
        const QVariantMap map = mapValue(row);
        add(plainText(map.value(DraftKey::kSourceKey)));
        for (const QVariant &key : listValue(map.value(DraftKey::kSourceKeys)))
            add(plainText(key));
    }
    return keys;
}
