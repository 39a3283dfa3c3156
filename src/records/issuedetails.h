#pragma once

// The keys of an issue's details as `JiraClient::issueDetails` returns them and "jira-titles.plist"
// (`IssueTitleCache`) keeps them.
//
// When you add a key, also change `IssueTitleCache::finish`, which copies the details into its entry.

#include <QString>

namespace IssueDetailsKey
{

// The issue's summary.
inline const QString kTitle = QStringLiteral("title");
// The original and the remaining estimate in seconds, when Jira has them.
inline const QString kEstimateSeconds = QStringLiteral("estimate_seconds");
inline const QString kRemainingSeconds = QStringLiteral("remaining_seconds");
// Only in the cache: when the details were fetched (a QDateTime).
inline const QString kDate = QStringLiteral("date");

} // namespace IssueDetailsKey
