#pragma once

// The keys of a session record: one tracked stretch of work as the monitor and the history hand it on
// (`StintwatchMonitor::sessionRecord`, `History`), with the fields `IssueAssignments::resolve` adds and the
// ones the application adds before building drafts. Values may be missing or of another type in records read
// from files: readers treat them defensively.
//
// When you add a key that the draft builder should carry over, also change `JRBuildDrafts` (worklogs/drafts.cpp)
// and the draft keys (records/draft.h).

#include <QString>

namespace SessionKey
{

// Local calendar date of the start, as the tracker shows it.
inline const QString kDate = QStringLiteral("date");
// The issue key the session is booked on; "Unassigned" when the tracker captured none.
inline const QString kIssue = QStringLiteral("issue");
// The issue the tracker captured, kept when an override or rule replaced "issue".
inline const QString kOriginalIssue = QStringLiteral("original_issue");
// The tracker's activity description.
inline const QString kDescription = QStringLiteral("description");
// The tracked time as text ("1h 5m", "Unfinished").
inline const QString kDuration = QStringLiteral("duration");
// Start and end, milliseconds since 1970.
inline const QString kStartMs = QStringLiteral("start_ms");
inline const QString kEndMs = QStringLiteral("end_ms");
// The tracker's own row id, and its server id (0 for a session never synced).
inline const QString kLocalId = QStringLiteral("local_id");
inline const QString kApiId = QStringLiteral("api_id");
// The tracker's project id.
inline const QString kProject = QStringLiteral("project");
// Seconds the tracker itself counted.
inline const QString kSourceSeconds = QStringLiteral("source_seconds");
// The tracker account the session belongs to.
inline const QString kSourceAccount = QStringLiteral("source_account");
// True while the tracker is still running this session.
inline const QString kSourceRunning = QStringLiteral("source_running");
// Why the session is booked on its issue: "This session", "Captured issue", "Description rule",
// "Submission recorded".
inline const QString kAssignment = QStringLiteral("assignment");
// True when a submission froze the assignment.
inline const QString kAssignmentLocked = QStringLiteral("assignment_locked");
// A description rule asked for all of a day's sessions with this description to be posted together.
inline const QString kAggregateDaily = QStringLiteral("aggregate_daily");
// The normalised description of the rule that assigned the session.
inline const QString kAggregateDescription = QStringLiteral("aggregate_description");
// The worklog comment and whether the user wrote it (else it follows the description).
inline const QString kComment = QStringLiteral("comment");
inline const QString kCommentCustom = QStringLiteral("comment_custom");
// The session's exclusion record (records/exclusion.h); absent or empty = none.
inline const QString kJiraExclusion = QStringLiteral("jira_exclusion");
// Seconds of this session already in Jira according to the receipts.
inline const QString kJiraLoggedSeconds = QStringLiteral("jira_logged_seconds");
// "pending" or "posted" when a receipt covers the session.
inline const QString kJiraReceiptState = QStringLiteral("jira_receipt_state");
// The Jira issue's title, when known.
inline const QString kIssueTitle = QStringLiteral("issue_title");

// The "issue" of a session the tracker booked on no issue.
inline const QString kUnassigned = QStringLiteral("Unassigned");

} // namespace SessionKey
