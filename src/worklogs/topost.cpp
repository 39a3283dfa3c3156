#include "worklogs/topost.h"

#include "worklogs/engineinternal.h"
#include "worklogs/preferences.h"

#include <QHash>
#include <QSet>

#include <algorithm>

using namespace jrinternal;

namespace
{

QVariantMap combined(std::vector<QVariantMap> group)
{
    std::stable_sort(group.begin(), group.end(), [](const QVariantMap &a, const QVariantMap &b) {
        const QString startedA = plainText(a.value(QStringLiteral("started")));
        const QString startedB = plainText(b.value(QStringLiteral("started")));
        if (startedA != startedB)
            return startedA < startedB;
        return plainText(a.value(QStringLiteral("source_key"))) < plainText(b.value(QStringLiteral("source_key")));
    });

    const QVariantMap &first = group.front();
    qint64 seconds = 0, logged = 0, remaining = 0, post = 0;
    QStringList keys;
    QVariantList keyList, sessions, amounts, manualMatches;
    for (const QVariantMap &draft : group) {
        const qint64 postSeconds = JRPostSeconds(draft);
        seconds = saturatingAdd(seconds, int64Value(draft.value(QStringLiteral("seconds"))));
        logged = saturatingAdd(logged, int64Value(draft.value(QStringLiteral("logged_seconds"))));
        remaining = saturatingAdd(remaining, int64Value(draft.value(QStringLiteral("remaining_seconds"))));
        post = saturatingAdd(post, postSeconds);
        const QString key = plainText(draft.value(QStringLiteral("source_key")));
        keys.append(key);
        keyList.append(key);
        sessions.append(mapValue(draft.value(QStringLiteral("session"))));
        amounts.append(postSeconds);
        manualMatches.append(listValue(draft.value(QStringLiteral("manual_matches"))));
    }

    QVariantMap result = first;
    const QString sourceKey = JRHash(keys.join(u'|'));
    const QString firstIssue = plainText(first.value(QStringLiteral("issue")));
    result.insert(QStringLiteral("source_key"), sourceKey);
    result.insert(
        QStringLiteral("marker_seed"), QString(sourceKey + u'|' + QString::number(logged) + u'|' + firstIssue));
    result.insert(QStringLiteral("seconds"), seconds);
    result.insert(QStringLiteral("logged_seconds"), logged);
    result.insert(QStringLiteral("remaining_seconds"), remaining);
    // Rounded once over the whole group, so that sub-minute fragments add up instead of vanishing.
    result.insert(QStringLiteral("post_seconds"), JRRoundedSeconds(post));
    result.insert(QStringLiteral("source_keys"), keyList);
    result.insert(QStringLiteral("source_sessions"), sessions);
    result.insert(QStringLiteral("source_amounts"), amounts);
    result.insert(QStringLiteral("combined_count"), qint64(group.size()));
    result.insert(QStringLiteral("manual_matches"), manualMatches);
    result.insert(QStringLiteral("fragment"), false);

    // A custom comment is kept only when every session of the group carries the very same one.
    bool keepCustom = isYes(first.value(QStringLiteral("comment_custom")));
    const QVariant firstComment = first.value(QStringLiteral("comment"));
    for (const QVariantMap &draft : group) {
        if (!keepCustom)
            break;
        keepCustom = isYes(draft.value(QStringLiteral("comment_custom"))) && draft.contains(QStringLiteral("comment"))
            && plainText(draft.value(QStringLiteral("comment"))) == plainText(firstComment);
    }
    if (keepCustom) {
        result.insert(QStringLiteral("comment"), plainText(firstComment));
        result.insert(QStringLiteral("comment_custom"), true);
    } else {
        const QVariantMap session = mapValue(first.value(QStringLiteral("session")));
        const auto description = session.constFind(QStringLiteral("description"));
        result.insert(QStringLiteral("comment"),
            description != session.constEnd() && !description->isNull() ? plainText(*description)
                                                                        : plainText(firstComment));
        result.insert(QStringLiteral("comment_custom"), false);
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
            if (isYes(group.front().value(QStringLiteral("fragment"))))
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
        const QDateTime started = JRDate(mapValue(row).value(QStringLiteral("started")));
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
    from = localDayStart(localDay(earliest)).addSecs(-3600);
    to = localDayStart(localDay(latest).addDays(1)).addSecs(3600);
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
        add(plainText(map.value(QStringLiteral("source_key"))));
        for (const QVariant &key : listValue(map.value(QStringLiteral("source_keys"))))
            add(plainText(key));
    }
    return keys;
}
