#pragma once

#include "summary/decimal.h"

#include <QDateTime>
#include <QString>
#include <QVariantList>

#include <optional>

// "h:mm:ss" with unpadded hours, e.g. HLDuration(3725) == "1:02:05".
QString HLDuration(qint64 seconds);

// The periods the summary line totals; the numbers are those stored in "SummaryPeriod" and passed as `period`.
enum class SummaryPeriod : int { Today = 0, Week = 1, Month = 2 };

// The "WeekStart" setting's values.
enum class WeekStart : int { Calendar = 0, Monday = 1, Sunday = 2, Saturday = 3 };

// The date ranges of list filters, as passed to `TimeSummary::period`.
enum class FilterRange : int { Today = 0, Yesterday = 1, LastSevenDays = 2, Custom = 3 };

// Period totals for the menu-bar line, with earnings when an hourly rate is set. The calendar and time zone
// are the current ones (local time, QLocale() for the calendar's first weekday).
//
// Settings read (QSettings): "SummaryPeriod" (0 today, 1 this week, 2 this month; 3 or more reads as 1),
// "SummaryMonthly" (older form, only read while "SummaryPeriod" is absent: true means month, else week),
// "WeekStart" (0 the calendar's own, 1 Monday, 2 Sunday, 3 Saturday; absent or out of range reads as 1),
// "HourlyRate" (the rate as typed), "HourlyCurrency" ("USD" when absent), "ShowEarnings" (absent means shown).
struct TimeSummary { // class operations only
    static int configuredPeriod();
    static void setConfiguredPeriod(int period);
    static QString periodLabel(int period);
    static int configuredWeekStart();
    static void setConfiguredWeekStart(int setting);
    // Gregorian weekday (1 Sunday … 7 Saturday) a week starts on for a "WeekStart" setting.
    static int firstWeekday(int setting);

    static QDateTime summaryStart(const QDateTime &now, int period);
    // Seconds the sessions cover between the period's start and now, overlapping sessions counted once.
    static double seconds(const QVariantList &sessions, const QDateTime &now, int period);

    // The rate as typed ("45", "45.5", "45,50"): up to seven digits and up to four decimals; nothing otherwise.
    static std::optional<Decimal> rateFromText(const QString &text);
    // The amount as US English writes it in that currency: "$4.55", "€4.55", "¥45", "CHF 4.55".
    static QString money(const Decimal &amount, const QString &currency);

    static QString summaryText(const QVariantList &sessions, const QDateTime &now); // configured period
    static QString summaryText(const QVariantList &sessions, const QDateTime &now, int period);

    // Date ranges for list filters: kind 0 today, 1 yesterday, 2 the last seven days including today, 3 the
    // days from `from` through `to`. [start, end) or both invalid when there is no such range.
    static void period(
        int kind, const QDateTime &now, const QDateTime &from, const QDateTime &to, QDateTime &start, QDateTime &end);
};
