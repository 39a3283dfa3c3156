#include "worklogs/preferences.h"

#include "worklogs/values.h"

#include <QHash>
#include <QSettings>

#include <optional>

struct JRPreferenceSnapshot::Values {
    QSettings settings;
    QHash<QString, std::optional<QVariant>> read; // key → stored value, nullopt when absent
};

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

thread_local JRPreferenceSnapshot::Values *tSnapshot = nullptr;

// The stored value of `key`, or nothing when none is stored.
std::optional<QVariant> stored(const QString &key)
{
    if (tSnapshot) {
        auto found = tSnapshot->read.constFind(key);
        if (found == tSnapshot->read.constEnd()) {
            std::optional<QVariant> value;
            if (tSnapshot->settings.contains(key))
                value = tSnapshot->settings.value(key);
            found = tSnapshot->read.insert(key, value);
        }
        return *found;
    }
    QSettings settings;
    if (!settings.contains(key))
        return std::nullopt;
    return settings.value(key);
}

void store(const QString &key, const QVariant &value)
{
    if (tSnapshot) {
        tSnapshot->settings.setValue(key, value);
        tSnapshot->read.remove(key);
        return;
    }
    QSettings().setValue(key, value);
}

// Preferences that default to YES are read only when a value is stored: no defaults are registered.
bool boolDefaultYes(const QString &key)
{
    const std::optional<QVariant> value = stored(key);
    return !value || jrinternal::isYes(*value);
}

bool boolDefaultNo(const QString &key)
{
    const std::optional<QVariant> value = stored(key);
    return value && jrinternal::isYes(*value);
}

void setBool(const QString &key, bool value)
{
    store(key, value);
}

int workdayMinutes(const QString &key, int fallback)
{
    const std::optional<QVariant> stored = ::stored(key);
    if (!stored)
        return fallback;
    const qint64 value = jrinternal::int64Value(*stored);
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
    store(kStart, start);
    store(kEnd, end);
}

JRPreferenceSnapshot::JRPreferenceSnapshot()
{
    if (!tSnapshot) {
        m_values = std::make_unique<Values>();
        tSnapshot = m_values.get();
    }
}

JRPreferenceSnapshot::~JRPreferenceSnapshot()
{
    if (m_values)
        tSnapshot = nullptr;
}

bool JRWorkdayIncludesWeekday(int weekday)
{
    if (JRWorkdayWeekendsIncluded())
        return true;
    return weekday != 1 && weekday != 7;
}
