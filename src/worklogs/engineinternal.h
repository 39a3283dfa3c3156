#pragma once

// Helpers shared by the engine's sources only. They read records defensively: records come from files and
// from Jira, so every value may be missing or of the wrong type, and the answer is then a neutral value.

#include <QDate>
#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantList>
#include <QVariantMap>

namespace jrinternal
{

// A value as plain text: texts as they are, numbers in decimal, anything else (absent, maps, lists) empty.
QString plainText(const QVariant &value);
// A text value, or the empty text for anything that is not a text.
QString textValue(const QVariant &value);
// A value as a 64-bit integer: numbers (fractions truncated, saturated), decimal texts, booleans; else 0.
qint64 int64Value(const QVariant &value, bool *ok = nullptr);
bool isYes(const QVariant &value);
bool isMap(const QVariant &value);
bool isList(const QVariant &value);
QVariantMap mapValue(const QVariant &value);
QVariantList listValue(const QVariant &value);
// True when the value is a text equal to `expected` (a null `expected` never matches).
bool isText(const QVariant &value, const QString &expected);
// "^[A-Z][A-Z0-9_]*-[0-9]+$", matched exactly (no trailing line end).
bool isIssueKey(QStringView text);

qint64 saturatingAdd(qint64 a, qint64 b);
qint64 saturatingSub(qint64 a, qint64 b);

// The local calendar day of an instant; invalid for an invalid date.
QDate localDay(const QDateTime &date);
// Start of a local calendar day (the first existing instant when midnight is skipped).
QDateTime localDayStart(const QDate &day);

// Jira's "yyyy-MM-dd'T'HH:mm:ss.SSSZ" or "yyyy-MM-dd'T'HH:mm:ssZ" as an instant and the offset it was written in.
bool parseJiraDate(QStringView text, qint64 &msecs, int &offsetSeconds);
bool parseJiraDate(const QVariant &value, qint64 &msecs);

// One local calendar day as a half-open range of instants, so that "same day" tests are integer comparisons
// instead of a time-zone conversion per record.
struct LocalDayRange {
    QDate date;
    qint64 beginMs = 0;
    qint64 endMs = 0;
    bool contains(qint64 ms) const { return date.isValid() && ms >= beginMs && ms < endMs; }
};
LocalDayRange localDayRange(const QDate &date);
LocalDayRange localDayRangeOf(qint64 ms);

// Remembers the last day looked up: the records of one call nearly always share their day.
class LocalDayCache
{
public:
    const LocalDayRange &of(qint64 ms)
    {
        if (!m_day.contains(ms))
            m_day = localDayRangeOf(ms);
        return m_day;
    }

private:
    LocalDayRange m_day;
};

QString sessionIssue(const QVariantMap &session);
QString sessionActivity(const QVariantMap &session); // null = nothing
QString sessionCombineKey(const QVariantMap &session, const QString &issue, bool combineDaily); // null = nothing
QString combineKey(const QVariantMap &draft, bool combineDaily, LocalDayCache *days = nullptr); // null = nothing
bool valid(const QVariantMap &draft, bool ignoreShort);
QString exclusionKind(const QVariantMap &record);
QString rowComment(const QVariantMap &draft);
QVariantMap commentDocument(const QString &text);

} // namespace jrinternal
