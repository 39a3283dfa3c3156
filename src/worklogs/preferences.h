#pragma once

// Worklog preferences. Every getter reads the settings afresh, so a change in Settings applies to the next
// call. Durations are in durations.h, the texts exchanged with Jira in text.h.

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
