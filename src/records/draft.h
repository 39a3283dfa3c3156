#pragma once

// The keys of a worklog draft: what `JRBuildDrafts` makes of one session, what `JRWorklogsToPost` makes of a
// group, and what a comparison (`WorklogService::checkDrafts`, `ComparisonCache::applyToDrafts`) adds.
//
// When you add a key, also change `JRBuildDrafts` (worklogs/drafts.cpp), which writes every key of a new draft,
// and, if the key differs between the pieces of a group, `combined` in worklogs/topost.cpp. A key that changes
// what would be posted also belongs in `JRComparisonFingerprint` (worklogs/compare.cpp), or a cached comparison
// would outlive the change.

#include <QString>

namespace DraftKey
{

// Digest that names the session (`JRSourceKey`), or the group of sessions, the draft was built from.
inline const QString kSourceKey = QStringLiteral("source_key");
// What the marker is derived from: source key, seconds already logged and the captured issue.
inline const QString kMarkerSeed = QStringLiteral("marker_seed");
// The Jira issue key ("" when none).
inline const QString kIssue = QStringLiteral("issue");
// Tracked seconds, rounded to the minute unless the draft is a fragment.
inline const QString kSeconds = QStringLiteral("seconds");
// Tracked milliseconds, unrounded.
inline const QString kSourceMilliseconds = QStringLiteral("source_milliseconds");
// Seconds already in Jira, and what is left to post.
inline const QString kLoggedSeconds = QStringLiteral("logged_seconds");
inline const QString kRemainingSeconds = QStringLiteral("remaining_seconds");
// Seconds to post; the user may change it ("seconds" is used when absent).
inline const QString kPostSeconds = QStringLiteral("post_seconds");
// Start in Jira's date format.
inline const QString kStarted = QStringLiteral("started");
// The worklog comment and whether the user wrote it.
inline const QString kComment = QStringLiteral("comment");
inline const QString kCommentCustom = QStringLiteral("comment_custom");
// The issue's title, when known.
inline const QString kIssueTitle = QStringLiteral("issue_title");
// The session record the draft was built from (records/session.h).
inline const QString kSession = QStringLiteral("session");
// The exclusion that silences the draft (records/exclusion.h); empty = none.
inline const QString kJiraExclusion = QStringLiteral("jira_exclusion");
// The Jira id of the hand-made worklog a manual match links.
inline const QString kManualWorklogId = QStringLiteral("manual_worklog_id");
// Why the draft is on its issue (records/session.h "assignment").
inline const QString kAssignment = QStringLiteral("assignment");
// Ticked for posting.
inline const QString kInclude = QStringLiteral("include");
// May be posted: the comparison found nothing in the way.
inline const QString kEligible = QStringLiteral("eligible");
// Seconds Jira holds for the user on the draft's issue and day.
inline const QString kExisting = QStringLiteral("existing");
// A sub-minute piece posted only as part of its group.
inline const QString kFragment = QStringLiteral("fragment");
// The description-rule activity the draft is grouped by ("" when none).
inline const QString kActivity = QStringLiteral("activity");
// True while the tracker still runs the session.
inline const QString kSourceRunning = QStringLiteral("source_running");
// "pending" or "posted" when a receipt covers the draft's sessions.
inline const QString kJiraReceiptState = QStringLiteral("jira_receipt_state");
// The text the window shows in the status column.
inline const QString kStatus = QStringLiteral("status");

// A group of drafts posted as one worklog (`JRWorklogsToPost`): the members' source keys, session records,
// seconds to post each, their number, and each member's manual matches.
inline const QString kSourceKeys = QStringLiteral("source_keys");
inline const QString kSourceSessions = QStringLiteral("source_sessions");
inline const QString kSourceAmounts = QStringLiteral("source_amounts");
inline const QString kCombinedCount = QStringLiteral("combined_count");
inline const QString kManualMatches = QStringLiteral("manual_matches");

// Added by a comparison: the marker the draft is posted under.
inline const QString kMarker = QStringLiteral("marker");
// Added from the comparison cache: when the stored comparison ran, whether it is still fresh, and that it came
// from the cache.
inline const QString kComparisonAt = QStringLiteral("comparison_at");
inline const QString kComparisonCurrent = QStringLiteral("comparison_current");
inline const QString kComparisonCached = QStringLiteral("comparison_cached");

} // namespace DraftKey

// The keys of a possible manual match (`JRManualMatches`): a hand-made worklog that may already cover a draft.
namespace ManualMatchKey
{

inline const QString kId = QStringLiteral("id");
inline const QString kStarted = QStringLiteral("started");
inline const QString kSeconds = QStringLiteral("seconds");
inline const QString kComment = QStringLiteral("comment");
// 0 ... 3, higher is likelier; "reason" says why in words.
inline const QString kScore = QStringLiteral("score");
inline const QString kReason = QStringLiteral("reason");

} // namespace ManualMatchKey
