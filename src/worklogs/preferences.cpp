#include "worklogs/preferences.h"

#include "worklogs/values.h"

#include <QSettings>

namespace
{

const QString kIgnoreShort = QStringLiteral("IgnoreSessionsUnderOneMinute");
const QString kHideShort = QStringLiteral("HideShortSessionsInHistory");
const QString kAutoCompare = QStringLiteral("AutoCompareOnReviewOpen");
const QString kCombineDaily = QStringLiteral("CombineDailyByIssue");
const QString kReminder = QStringLiteral("WorkdayReminderEnabled");
const QString kStart = QStringLiteral("WorkdayStartMinutes");
const QString kEnd = QStringLiteral("WorkdayEndMinutes");
const QString kWeekends = QStringLiteral("WorkdayIncludesWeekends");
const QString kReduceEstimate = QStringLiteral("ReduceEstimateOnPost");

constexpr int kDefaultWorkdayStart = 9 * 60;
constexpr int kDefaultWorkdayEnd = 17 * 60;
constexpr int kMinutesPerDay = 24 * 60;

// Preferences that default to YES are read only when a value is stored: no defaults are registered.
bool boolDefaultYes(const QString &key)
{
    QSettings settings;
    return !settings.contains(key) || jrinternal::isYes(settings.value(key));
}

bool boolDefaultNo(const QString &key)
{
    return jrinternal::isYes(QSettings().value(key));
}

void setBool(const QString &key, bool value)
{
    QSettings().setValue(key, value);
}

int workdayMinutes(const QString &key, int fallback)
{
    QSettings settings;
    if (!settings.contains(key))
        return fallback;
    const qint64 value = jrinternal::int64Value(settings.value(key));
    // Compared as unsigned on purpose: negative values fall back as well.
    return quint64(value) < kMinutesPerDay ? int(value) : fallback;
}

} // namespace

bool JRIgnoreShortSessions()
{
    return boolDefaultYes(kIgnoreShort);
}
void JRSetIgnoreShortSessions(bool ignore)
{
    setBool(kIgnoreShort, ignore);
}
bool JRHideShortSessions()
{
    return boolDefaultNo(kHideShort);
}
void JRSetHideShortSessions(bool hide)
{
    setBool(kHideShort, hide);
}
bool JRAutoCompareOnOpen()
{
    return boolDefaultYes(kAutoCompare);
}
void JRSetAutoCompareOnOpen(bool compare)
{
    setBool(kAutoCompare, compare);
}
bool JRCombineDailyByIssue()
{
    return boolDefaultYes(kCombineDaily);
}
void JRSetCombineDailyByIssue(bool combine)
{
    setBool(kCombineDaily, combine);
}
bool JRWorkdayReminderEnabled()
{
    return boolDefaultNo(kReminder);
}
void JRSetWorkdayReminderEnabled(bool enabled)
{
    setBool(kReminder, enabled);
}
bool JRWorkdayWeekendsIncluded()
{
    return boolDefaultNo(kWeekends);
}
void JRSetWorkdayWeekendsIncluded(bool included)
{
    setBool(kWeekends, included);
}
bool JRReduceEstimateOnPost()
{
    return boolDefaultNo(kReduceEstimate);
}
void JRSetReduceEstimateOnPost(bool reduce)
{
    setBool(kReduceEstimate, reduce);
}

int JRWorkdayStartMinutes()
{
    return workdayMinutes(kStart, kDefaultWorkdayStart);
}
int JRWorkdayEndMinutes()
{
    return workdayMinutes(kEnd, kDefaultWorkdayEnd);
}

void JRSetWorkdayMinutes(int start, int end)
{
    QSettings settings;
    settings.setValue(kStart, start);
    settings.setValue(kEnd, end);
}

bool JRWorkdayIncludesWeekday(int weekday)
{
    if (JRWorkdayWeekendsIncluded())
        return true;
    return weekday != 1 && weekday != 7;
}
