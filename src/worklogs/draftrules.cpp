#include "worklogs/draftrules.h"

#include "records/draft.h"
#include "records/exclusion.h"
#include "records/session.h"
#include "records/worklog.h"
#include "worklogs/days.h"
#include "worklogs/values.h"

namespace jrinternal
{

namespace
{

// What a valid draft may post: a minute unless short sessions are kept, and never more than a day.
constexpr qint64 kShortestWorklogSeconds = 60;
constexpr qint64 kLongestWorklogSeconds = 86'400;

} // namespace

QString sessionIssue(const QVariantMap &session)
{
    const QVariant issue = session.value(SessionKey::kIssue);
    if (issue.typeId() == QMetaType::QString && issue.toString() != SessionKey::kUnassigned)
        return issue.toString();
    return QStringLiteral("");
}

QString sessionActivity(const QVariantMap &session)
{
    if (!isText(session.value(SessionKey::kAssignment), QStringLiteral("Description rule")))
        return {};
    const QVariant aggregate = session.value(SessionKey::kAggregateDescription);
    const QVariant activity = (aggregate.typeId() == QMetaType::QString && !aggregate.toString().isEmpty())
        ? aggregate
        : session.value(SessionKey::kDescription);
    if (activity.typeId() == QMetaType::QString && !activity.toString().isEmpty())
        return activity.toString();
    return {};
}

QString sessionCombineKey(const QVariantMap &session, const QString &issue, bool combineDaily)
{
    if (issue.isEmpty())
        return {};
    if (!combineDaily) {
        if (!isYes(session.value(SessionKey::kAggregateDaily)))
            return {};
        return issue + u'|' + plainText(session.value(SessionKey::kAggregateDescription));
    }
    const QString activity = sessionActivity(session);
    if (!activity.isNull())
        return issue + u'|' + activity;
    return issue;
}

QString exclusionKind(const QVariantMap &record)
{
    return plainText(mapValue(record.value(DraftKey::kJiraExclusion)).value(ExclusionKey::kKind));
}

QString combineKey(const QVariantMap &draft, bool combineDaily, LocalDayCache *days)
{
    if (isYes(draft.value(DraftKey::kSourceRunning)) || exclusionKind(draft) == ExclusionKey::kIgnore)
        return {};
    const QString key = sessionCombineKey(
        mapValue(draft.value(DraftKey::kSession)), textValue(draft.value(DraftKey::kIssue)), combineDaily);
    qint64 startMs = 0;
    if (key.isNull() || !parseJiraDate(draft.value(DraftKey::kStarted), startMs))
        return {};
    LocalDayCache own;
    const LocalDayRange &day = (days ? days : &own)->of(startMs);
    if (!day.date.isValid())
        return {};
    return key + u'|' + QString::number(day.beginMs / 1000);
}

bool valid(const QVariantMap &draft, bool ignoreShort)
{
    if (!isIssueKey(textValue(draft.value(DraftKey::kIssue))))
        return false;
    const auto post = draft.constFind(DraftKey::kPostSeconds);
    const QString text = plainText(post != draft.constEnd() ? *post : draft.value(DraftKey::kSeconds));
    if (text.isEmpty())
        return false;
    for (const QChar c : text) {
        if (c < u'0' || c > u'9')
            return false;
    }
    bool ok = false;
    const qint64 seconds = text.toLongLong(&ok);
    if (!ok)
        return false;
    const bool fragment = isYes(draft.value(DraftKey::kFragment));
    const qint64 lower = (fragment || !ignoreShort) ? 1 : kShortestWorklogSeconds;
    if (seconds < lower || seconds > kLongestWorklogSeconds)
        return false;
    qint64 startMs = 0;
    return parseJiraDate(draft.value(DraftKey::kStarted), startMs);
}

QString rowComment(const QVariantMap &draft)
{
    const QString text = textValue(draft.value(DraftKey::kComment));
    if (isYes(draft.value(DraftKey::kCommentCustom)))
        return text;
    // Without an own comment or activity, the issue's title says it all; Jira needs no copy of it.
    if (!textValue(draft.value(DraftKey::kIssueTitle)).isEmpty()
        && textValue(draft.value(DraftKey::kActivity)).isEmpty())
        return QStringLiteral("");
    return text;
}

QVariantMap commentDocument(const QString &text)
{
    const QVariantMap textNode {{WorklogKey::kNodeType, WorklogKey::kNodeText}, {WorklogKey::kNodeText, text}};
    const QVariantMap paragraph {
        {WorklogKey::kNodeType, QStringLiteral("paragraph")}, {WorklogKey::kNodeContent, QVariantList {textNode}}};
    return QVariantMap {{WorklogKey::kNodeVersion, 1}, {WorklogKey::kNodeType, QStringLiteral("doc")},
        {WorklogKey::kNodeContent, QVariantList {paragraph}}};
}

} // namespace jrinternal
