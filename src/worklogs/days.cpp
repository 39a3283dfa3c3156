#include "worklogs/days.h"

namespace jrinternal
{

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

} // namespace jrinternal
