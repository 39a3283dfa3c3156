#pragma once

// The keys of an exclusion record: a session the user took out of Jira posting, either ignored or matched to
// a worklog logged by hand. Stored per session by `IssueAssignments` and carried by sessions and drafts under
// "jira_exclusion".
//
// When you add a key, also change both places the Worklogs window makes an exclusion (`markAsLogged` and
// `ignoreForJira` in app/ui/reviewcommands.cpp).

#include <QString>

namespace ExclusionKey
{

// kIgnore or kManual.
inline const QString kKind = QStringLiteral("kind");
// For a manual match: the issue and the Jira id of the hand-made worklog.
inline const QString kIssue = QStringLiteral("issue");
inline const QString kWorklogId = QStringLiteral("worklog_id");
// For a manual match: seconds the hand-made worklog covers (0 or absent = the whole session).
inline const QString kSeconds = QStringLiteral("seconds");
// The Jira account that made the exclusion, and when (ISO date and time).
inline const QString kAccount = QStringLiteral("account");
inline const QString kConfirmedAt = QStringLiteral("confirmed_at");

// The values of "kind".
inline const QString kIgnore = QStringLiteral("ignore");
inline const QString kManual = QStringLiteral("manual");

} // namespace ExclusionKey
