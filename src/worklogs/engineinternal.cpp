#include "worklogs/engineinternal.h"

#include "records/draft.h"
#include "records/exclusion.h"
#include "records/session.h"
#include "records/worklog.h"
#include "worklogs/preferences.h"

#include <QStringList>

#include <cmath>
#include <limits>

namespace jrinternal
{

namespace
{

constexpr qint64 kMax = std::numeric_limits<qint64>::max();
constexpr qint64 kMin = std::numeric_limits<qint64>::min();

// What a valid draft may post: a minute unless short sessions are kept, and never more than a day.
constexpr qint64 kShortestWorklogSeconds = 60;
constexpr qint64 kLongestWorklogSeconds = 86'400;

qint64 fromDouble(double value)
{
    if (std::isnan(value))
        return 0;
    if (value >= 9.2233720368547758e18)
        return kMax;
    if (value <= -9.2233720368547758e18)
        return kMin;
    return qint64(value); // truncates toward zero
}

} // namespace

QString plainText(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QString:
        return value.toString();
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::Char:
    case QMetaType::SChar:
        return QString::number(value.toLongLong());
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
    case QMetaType::UShort:
    case QMetaType::UChar:
        return QString::number(value.toULongLong());
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("1") : QStringLiteral("0");
    case QMetaType::Double:
    case QMetaType::Float: {
        const double d = value.toDouble();
        if (std::isfinite(d) && d == std::trunc(d) && std::fabs(d) < 9.0e15)
            return QString::number(qint64(d));
        return QString::number(d, 'g', 17);
    }
    default:
        return QStringLiteral("");
    }
}

QString textValue(const QVariant &value)
{
    return value.typeId() == QMetaType::QString ? value.toString() : QStringLiteral("");
}

qint64 int64Value(const QVariant &value, bool *ok)
{
    bool converted = true;
    qint64 result = 0;
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UInt:
    case QMetaType::UShort:
    case QMetaType::UChar:
    case QMetaType::Bool:
        result = value.toLongLong();
        break;
    case QMetaType::ULong:
    case QMetaType::ULongLong: {
        const qulonglong u = value.toULongLong();
        result = u > quint64(kMax) ? kMax : qint64(u);
        break;
    }
    case QMetaType::Double:
    case QMetaType::Float:
        result = fromDouble(value.toDouble());
        break;
    case QMetaType::QString: {
        const QString text = value.toString().trimmed();
        result = text.toLongLong(&converted);
        if (!converted) {
            const double d = text.toDouble(&converted);
            result = converted ? fromDouble(d) : 0;
        }
        break;
    }
    default:
        converted = false;
        break;
    }
    if (ok)
        *ok = converted;
    return result;
}

bool isYes(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::Long:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::Float:
        return int64Value(value) != 0;
    case QMetaType::QString: {
        // Settings files store booleans as "true"/"false".
        const QString text = value.toString().trimmed();
        if (text.compare(u"true", Qt::CaseInsensitive) == 0 || text.compare(u"yes", Qt::CaseInsensitive) == 0)
            return true;
        return int64Value(value) != 0;
    }
    default:
        return false;
    }
}

bool isMap(const QVariant &value)
{
    return value.typeId() == QMetaType::QVariantMap;
}

bool isList(const QVariant &value)
{
    return value.typeId() == QMetaType::QVariantList || value.typeId() == QMetaType::QStringList;
}

QVariantMap mapValue(const QVariant &value)
{
    return isMap(value) ? value.toMap() : QVariantMap();
}

QVariantList listValue(const QVariant &value)
{
    return isList(value) ? value.toList() : QVariantList();
}

bool isText(const QVariant &value, const QString &expected)
{
    return !expected.isNull() && value.typeId() == QMetaType::QString && value.toString() == expected;
}

bool isIssueKey(QStringView text)
{
    const auto upper = [](QChar c) { return c >= u'A' && c <= u'Z'; };
    const auto digit = [](QChar c) { return c >= u'0' && c <= u'9'; };
    if (text.isEmpty() || !upper(text[0]))
        return false;
    const qsizetype dash = text.lastIndexOf(u'-');
    if (dash < 1 || dash == text.size() - 1)
        return false;
    for (qsizetype i = 1; i < dash; ++i) {
        if (!upper(text[i]) && !digit(text[i]) && text[i] != u'_')
            return false;
    }
    for (qsizetype i = dash + 1; i < text.size(); ++i) {
        if (!digit(text[i]))
            return false;
    }
    return true;
}

qint64 saturatingAdd(qint64 a, qint64 b)
{
    qint64 result;
    if (__builtin_add_overflow(a, b, &result))
        return b > 0 ? kMax : kMin;
    return result;
}

qint64 saturatingSub(qint64 a, qint64 b)
{
    qint64 result;
    if (__builtin_sub_overflow(a, b, &result))
        return b < 0 ? kMax : kMin;
    return result;
}

QDate localDay(const QDateTime &date)
{
    return date.isValid() ? date.toLocalTime().date() : QDate();
}

QDateTime localDayStart(const QDate &day)
{
    return day.isValid() ? day.startOfDay() : QDateTime();
}

namespace
{

// `count` decimal digits at `at`, or -1.
int digits(QStringView text, qsizetype at, int count)
{
    int value = 0;
    for (int i = 0; i < count; ++i) {
        const QChar c = text[at + i];
        if (c < u'0' || c > u'9')
            return -1;
        value = value * 10 + (c.unicode() - u'0');
    }
    return value;
}

bool parseWith(QStringView text, bool withMillis, qint64 &msecs, int &offsetSeconds)
{
    const qsizetype base = withMillis ? 23 : 19;
    if (text.size() < base + 1)
        return false;
    if (text[4] != u'-' || text[7] != u'-' || text[10] != u'T' || text[13] != u':' || text[16] != u':')
        return false;
    const int year = digits(text, 0, 4), month = digits(text, 5, 2), day = digits(text, 8, 2);
    const int hour = digits(text, 11, 2), minute = digits(text, 14, 2), second = digits(text, 17, 2);
    int millis = 0;
    if (withMillis) {
        if (text[19] != u'.')
            return false;
        millis = digits(text, 20, 3);
    }
    if (year < 0 || month < 0 || day < 0 || hour < 0 || minute < 0 || second < 0 || millis < 0)
        return false;
    const QDate date(year, month, day);
    if (!date.isValid() || hour > 23 || minute > 59 || second > 59)
        return false;
    const QStringView zone = text.mid(base);
    int offset = 0;
    if (zone != u"Z") {
        if (zone[0] != u'+' && zone[0] != u'-')
            return false;
        int zoneHours = -1, zoneMinutes = -1;
        if (zone.size() == 5) {
            zoneHours = digits(zone, 1, 2);
            zoneMinutes = digits(zone, 3, 2);
        } else if (zone.size() == 6 && zone[3] == u':') {
            zoneHours = digits(zone, 1, 2);
            zoneMinutes = digits(zone, 4, 2);
        }
        if (zoneHours < 0 || zoneMinutes < 0 || zoneHours > 18 || zoneMinutes > 59)
            return false;
        offset = (zoneHours * 3600 + zoneMinutes * 60) * (zone[0] == u'-' ? -1 : 1);
    }
    constexpr qint64 kEpochJulianDay = 2440588;
    const qint64 localSeconds = (date.toJulianDay() - kEpochJulianDay) * 86400 + hour * 3600 + minute * 60 + second;
    msecs = (localSeconds - offset) * 1000 + millis;
    offsetSeconds = offset;
    return true;
}

} // namespace

bool parseJiraDate(QStringView text, qint64 &msecs, int &offsetSeconds)
{
    return parseWith(text, true, msecs, offsetSeconds) || parseWith(text, false, msecs, offsetSeconds);
}

bool parseJiraDate(const QVariant &value, qint64 &msecs)
{
    if (value.typeId() != QMetaType::QString)
        return false;
    int offset = 0;
    return parseJiraDate(value.toString(), msecs, offset);
}

LocalDayRange localDayRange(const QDate &date)
{
    LocalDayRange range;
    if (!date.isValid())
        return range;
    const QDateTime begin = date.startOfDay();
    const QDateTime end = date.addDays(1).startOfDay();
    if (!begin.isValid() || !end.isValid())
        return range;
    range.date = date;
    range.beginMs = begin.toMSecsSinceEpoch();
    range.endMs = end.toMSecsSinceEpoch();
    return range;
}

LocalDayRange localDayRangeOf(qint64 ms)
{
    return localDayRange(QDateTime::fromMSecsSinceEpoch(ms).date());
}

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
