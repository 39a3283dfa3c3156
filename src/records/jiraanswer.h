#pragma once

// The keys the program reads in Jira's answers other than worklogs (records/worklog.h): sites, the user, an
// issue, a page of worklogs and an error document. Jira's own spelling: the JSON names of its REST API.

#include <QString>

// One entry of "/oauth/token/accessible-resources": a site the sign-in reaches.
namespace JiraSiteKey
{

// The cloud id that addresses the site at the gateway, its address and its display name.
inline const QString kId = QStringLiteral("id");
inline const QString kUrl = QStringLiteral("url");
inline const QString kName = QStringLiteral("name");
// The permissions the sign-in holds on the site ("read:jira-work", ...).
inline const QString kScopes = QStringLiteral("scopes");

} // namespace JiraSiteKey

// "/myself": the signed-in user.
namespace JiraUserKey
{

inline const QString kAccountId = QStringLiteral("accountId");

} // namespace JiraUserKey

// "/issue/<key>?fields=summary,timetracking".
namespace JiraIssueKey
{

inline const QString kFields = QStringLiteral("fields");
// Within "fields": the title and {"originalEstimateSeconds", "remainingEstimateSeconds"}.
inline const QString kSummary = QStringLiteral("summary");
inline const QString kTimeTracking = QStringLiteral("timetracking");
inline const QString kOriginalEstimateSeconds = QStringLiteral("originalEstimateSeconds");
inline const QString kRemainingEstimateSeconds = QStringLiteral("remainingEstimateSeconds");

} // namespace JiraIssueKey

// One page of "/issue/<key>/worklog".
namespace JiraPageKey
{

inline const QString kWorklogs = QStringLiteral("worklogs");
// How many worklogs there are in all, and how many Jira granted per page.
inline const QString kTotal = QStringLiteral("total");
inline const QString kMaxResults = QStringLiteral("maxResults");

} // namespace JiraPageKey

// An error document: general messages and per-field messages.
namespace JiraErrorKey
{

inline const QString kErrorMessages = QStringLiteral("errorMessages");
inline const QString kErrors = QStringLiteral("errors");

} // namespace JiraErrorKey
