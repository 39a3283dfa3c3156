#pragma once

// Worklog preferences. Every getter reads the settings afresh, so a change in Settings applies to the next
// call, except while a JRPreferenceSnapshot lives on the calling thread. Durations are in durations.h, the texts
// exchanged with Jira in text.h.

#include <memory>

bool JRIgnoreShortSessions();
void JRSetIgnoreShortSessions(bool ignore);
bool JRHideShortSessions();
void JRSetHideShortSessions(bool hide);
bool JRAutoCompareOnOpen();
void JRSetAutoCompareOnOpen(bool compare);
bool JRCombineDailyByIssue();
void JRSetCombineDailyByIssue(bool combine);
bool JRWorkdayReminderEnabled();
void JRSetWorkdayReminderEnabled(bool enabled);
bool JRWorkdayWeekendsIncluded();
void JRSetWorkdayWeekendsIncluded(bool included);
bool JRReduceEstimateOnPost();
void JRSetReduceEstimateOnPost(bool reduce);

// Minutes after local midnight, 0 ... 1439; anything else stored reads as the default (540 and 1020).
int JRWorkdayStartMinutes();
int JRWorkdayEndMinutes();
void JRSetWorkdayMinutes(int start, int end);
// `weekday`: 1 = Sunday ... 7 = Saturday.
bool JRWorkdayIncludesWeekday(int weekday);

// While one lives, the preference getters on its thread read each stored value once and answer from that copy
// afterwards: a run over many drafts opens the settings once, not once per draft, and sees one consistent set
// of preferences. Setters on the thread still write through, and the copy follows them. An inner snapshot on a
// thread that already has one changes nothing.
class JRPreferenceSnapshot
{
public:
    JRPreferenceSnapshot();
    ~JRPreferenceSnapshot();
    JRPreferenceSnapshot(const JRPreferenceSnapshot &) = delete;
    JRPreferenceSnapshot &operator=(const JRPreferenceSnapshot &) = delete;

    struct Values;

private:
    std::unique_ptr<Values> m_values; // null for an inner snapshot
};
