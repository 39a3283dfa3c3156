#pragma once

// The keys of the records `IssueAssignments` keeps ("issue-assignments.plist"): description rules and
// per-session overrides.
//
// When you add a key to an override, also change `IssueAssignments::resolve`, which applies overrides to a
// session (records/session.h).

#include <QString>

namespace AssignmentKey
{

// The file's two maps: rule key -> rule, session key -> override.
inline const QString kRules = QStringLiteral("rules");
inline const QString kSessions = QStringLiteral("sessions");

} // namespace AssignmentKey

// A description rule: every session of a site with this description goes to an issue.
namespace RuleKey
{

inline const QString kSite = QStringLiteral("site");
// The normalised description the rule matches.
inline const QString kDescription = QStringLiteral("description");
// The description as the user wrote it, for display.
inline const QString kLabel = QStringLiteral("label");
inline const QString kIssue = QStringLiteral("issue");
// Post all of a day's matching sessions as one worklog.
inline const QString kAggregateDaily = QStringLiteral("aggregate_daily");

} // namespace RuleKey

// The user's changes to one session.
namespace OverrideKey
{

inline const QString kIssue = QStringLiteral("issue");
inline const QString kComment = QStringLiteral("comment");
// The exclusion record (records/exclusion.h).
inline const QString kJiraExclusion = QStringLiteral("jira_exclusion");
// Set once the session was submitted: the override no longer changes.
inline const QString kFrozen = QStringLiteral("frozen");

} // namespace OverrideKey
