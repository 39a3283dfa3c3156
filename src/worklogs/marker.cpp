#include "worklogs/marker.h"

#include "records/draft.h"
#include "records/session.h"
#include "records/worklog.h"
#include "worklogs/durations.h"
#include "worklogs/engineinternal.h"
#include "worklogs/preferences.h"
#include "worklogs/text.h"

#include <QVariantList>

using namespace jrinternal;

namespace
{

const QString &kPropertyKey = WorklogKey::kOwnProperty;

// The first "hourloom" property whose value is a dictionary; empty when there is none.
template<typename Accept> QVariantMap findProperty(const QVariantMap &worklog, Accept accept)
{
    const QVariant properties = worklog.value(WorklogKey::kProperties);
    if (properties.typeId() != QMetaType::QVariantList)
        return {};
    for (const QVariant &element : properties.toList()) {
        if (!isMap(element))
            continue;
        const QVariantMap property = element.toMap();
        if (!isText(property.value(WorklogKey::kPropertyKey), kPropertyKey))
            continue;
        const QVariant value = property.value(WorklogKey::kPropertyValue);
        if (!isMap(value))
            continue;
        const QVariantMap map = value.toMap();
        if (accept(map))
            return map;
    }
    return {};
}

// Hands out `remaining` over the keys in order, each key at most its amount; the last key takes the rest.
// Shares below one second are dropped, so the split never exceeds the posted seconds.
QVariantMap split(const QVariantList &keys, const std::vector<qint64> &amounts, qint64 remaining)
{
    QVariantMap result;
    const qsizetype last = keys.size() - 1;
    for (qsizetype i = 0; i < keys.size() && remaining >= 1; ++i) {
        const QString key = plainText(keys[i]);
        if (i == last) {
            result.insert(key, remaining);
            break;
        }
        const qint64 amount = amounts[size_t(i)];
        if (amount < 0)
            continue;
        const qint64 share = std::min(amount, remaining);
        if (share < 1)
            continue;
        result.insert(key, share);
        remaining -= share;
    }
    return result;
}

} // namespace

QString JRMarker(const QVariantMap &draft, const QString &cloud, const QString &account)
{
    const auto seed = draft.constFind(DraftKey::kMarkerSeed);
    const QString seedText = (seed != draft.constEnd() && !seed->isNull())
        ? plainText(*seed)
        : plainText(draft.value(DraftKey::kSourceKey));
    return JRHash(cloud + u'|' + account + u'|' + seedText);
}

QString JRMarkerTag(const QString &marker)
{
    return QStringLiteral("[Hourloom:") + marker + u']';
}

QString JRLegacyMarkerTag(const QString &marker)
{
    return QStringLiteral("[Stintwatch Companion:") + marker + u']';
}

QVariantMap JRCoverage(const QVariantMap &draft)
{
    const qint64 posted = JRPostSeconds(draft);
    const QVariantList keys = listValue(draft.value(DraftKey::kSourceKeys));
    if (!keys.isEmpty()) {
        const QVariant amountsValue = draft.value(DraftKey::kSourceAmounts);
        if (isList(amountsValue) && amountsValue.toList().size() == keys.size()) {
            std::vector<qint64> amounts;
            for (const QVariant &amount : amountsValue.toList())
                amounts.push_back(int64Value(amount));
            return split(keys, amounts, posted);
        }
        const QVariant sessionsValue = draft.value(DraftKey::kSourceSessions);
        if (isList(sessionsValue) && sessionsValue.toList().size() == keys.size()) {
            std::vector<qint64> amounts;
            for (const QVariant &entry : sessionsValue.toList()) {
                const QVariantMap session = mapValue(entry);
                const qint64 ms = saturatingSub(
                    int64Value(session.value(SessionKey::kEndMs)), int64Value(session.value(SessionKey::kStartMs)));
                const qint64 tracked = ms < -999 ? 0 : ms / 1000;
                amounts.push_back(saturatingSub(tracked, int64Value(session.value(SessionKey::kJiraLoggedSeconds))));
            }
            return split(keys, amounts, posted);
        }
    }
    const QString sourceKey = plainText(draft.value(DraftKey::kSourceKey));
    if (sourceKey.isEmpty())
        return {};
    return QVariantMap {{sourceKey, posted}};
}

QVariantMap JRPayload(const QVariantMap &draft, const QString &marker)
{
    const QVariantMap value {{DraftKey::kMarker, marker}, {WorklogKey::kSources, JRCoverage(draft)}};
    const QVariantMap property {{WorklogKey::kPropertyKey, kPropertyKey}, {WorklogKey::kPropertyValue, value}};
    QVariantMap body {{DraftKey::kStarted, plainText(draft.value(DraftKey::kStarted))},
        {WorklogKey::kTimeSpentSeconds, JRPostSeconds(draft)}, {WorklogKey::kProperties, QVariantList {property}}};
    const QString comment = rowComment(draft);
    if (!comment.isEmpty())
        body.insert(DraftKey::kComment, commentDocument(comment));
    return body;
}

QVariantMap JRPayloadWithTag(const QVariantMap &draft, const QString &tag)
{
    const QString comment = rowComment(draft);
    const QString text = comment.isEmpty() ? tag : comment + u'\n' + tag;
    return QVariantMap {{DraftKey::kStarted, plainText(draft.value(DraftKey::kStarted))},
        {WorklogKey::kTimeSpentSeconds, JRPostSeconds(draft)}, {DraftKey::kComment, commentDocument(text)}};
}

QString JRLogMarker(const QVariantMap &worklog)
{
    const QVariantMap value = findProperty(worklog, [](const QVariantMap &map) {
        const QVariant marker = map.value(WorklogKey::kMarker);
        return marker.typeId() == QMetaType::QString && !marker.toString().isEmpty();
    });
    if (value.isEmpty())
        return {};
    return value.value(WorklogKey::kMarker).toString();
}

QVariantMap JRLogSources(const QVariantMap &worklog)
{
    const QVariantMap value
        = findProperty(worklog, [](const QVariantMap &map) { return isMap(map.value(WorklogKey::kSources)); });
    return value.value(WorklogKey::kSources).toMap();
}
