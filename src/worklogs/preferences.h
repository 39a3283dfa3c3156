#pragma once

// Worklog preferences, the rounding of tracked time, the duration text the user reads and types, the plain
// text of Jira rich-text comments, Jira's date format and the digest used for source keys and markers.
// Every preference getter reads the settings afresh, so a change in Settings applies to the next call, except
// while a JRPreferenceSnapshot lives on the calling thread.

#include <QDateTime>
#include <QString>
#include <QVariant>
#include <QVariantMap>

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

// Nearest whole minute, 30 s rounding up; 0 for anything below 1.
qint64 JRRoundedSeconds(qint64 seconds);
// "post_seconds" when present (even 0), else "seconds".
qint64 JRPostSeconds(const QVariantMap &draft);
QString JRDurationText(qint64 seconds);
// -1 when the text is not a duration ("90", "1h 30m", "45m", "2H").
qint64 JRSecondsFromText(const QString &text);
// The user's part of a posted comment: the marker tag line is cut off.
QString JRCommentFromText(const QString &text);
// Plain text of a rich-text document, node or list of nodes.
QString JRText(const QVariant &node);
QDateTime JRDate(const QVariant &value); // invalid = nothing
QString JRISO(const QDateTime &date);
QString JRHash(const QString &text);

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
