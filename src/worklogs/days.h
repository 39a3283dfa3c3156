#pragma once

// Local calendar days and Jira's date format, for the engine's sources only.

#include <QDate>
#include <QDateTime>
#include <QString>
#include <QStringView>
#include <QVariant>

namespace jrinternal
{

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

} // namespace jrinternal
