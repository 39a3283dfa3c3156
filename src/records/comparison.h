#pragma once

// The keys of the records a comparison with Jira produces: the per-draft outcome of `JRCompare`, the answer
// of `WorklogService::checkDrafts`, the progress events of both `WorklogService` calls, the record of each
// posted worklog, and an entry of the comparison cache ("jira-comparisons.json").
//
// When you add a key to a comparison outcome, also change `WorklogService` (which merges it into the draft)
// and, if it must survive a restart, `ComparisonCache::saveDrafts` and `applyToDrafts`.

#include <QString>

// `JRCompare`'s outcome; the keys are merged into the draft (records/draft.h).
namespace ComparisonKey
{

inline const QString kStatus = QStringLiteral("status");
inline const QString kEligible = QStringLiteral("eligible");
inline const QString kExisting = QStringLiteral("existing");

} // namespace ComparisonKey

// The answer of `WorklogService::checkDrafts` (and of the compatibility call `compareDrafts`).
namespace CheckKey
{

// The enriched drafts.
inline const QString kDrafts = QStringLiteral("drafts");
// The user's Jira account id.
inline const QString kAccount = QStringLiteral("account");
// Pending receipts whose worklog Jira holds: {"marker", "id", "issue", "cloud", "account"} (records/receipt.h).
inline const QString kReceiptsFound = QStringLiteral("receipts_found");
// Only from `compareDrafts`: the sentence for the user when the check failed, and Jira's own explanation under
// it when there is one.
inline const QString kError = QStringLiteral("error");
inline const QString kDetail = QStringLiteral("detail");

} // namespace CheckKey

// A progress event of `WorklogService::checkDrafts` and `postDrafts`.
namespace ProgressKey
{

// "compare" or "post".
inline const QString kPhase = QStringLiteral("phase");
// "start", "active", "page", "complete", "failed" (compare); "submitting", "complete", "failed" (post).
inline const QString kState = QStringLiteral("state");
// The issue being worked on and the source keys of its rows.
inline const QString kIssue = QStringLiteral("issue");
inline const QString kSourceKeys = QStringLiteral("source_keys");
// Issues (compare) or rows (post) done, and how many there are.
inline const QString kCompleted = QStringLiteral("completed");
inline const QString kTotal = QStringLiteral("total");
// "start" only: the issues to fetch, each {"issue", "source_keys"}.
inline const QString kItems = QStringLiteral("items");
// "page" only: the page fetched and the number of pages.
inline const QString kPage = QStringLiteral("page");
inline const QString kPages = QStringLiteral("pages");
// "failed" only: the sentence for the user, and Jira's own explanation under it when there is one.
inline const QString kError = QStringLiteral("error");
inline const QString kDetail = QStringLiteral("detail");

} // namespace ProgressKey

// One worklog `WorklogService::postDrafts` created.
namespace PostedKey
{

inline const QString kMarker = QStringLiteral("marker");
inline const QString kIssue = QStringLiteral("issue");
inline const QString kId = QStringLiteral("id");
inline const QString kSeconds = QStringLiteral("seconds");
inline const QString kSourceKeys = QStringLiteral("source_keys");

} // namespace PostedKey

// An entry of the comparison cache, under `ComparisonCache::keyForDraft`.
namespace CachedComparisonKey
{

// `JRComparisonFingerprint` of the draft when it was compared: a changed draft does not reuse the outcome.
inline const QString kFingerprint = QStringLiteral("fingerprint");
inline const QString kStatus = QStringLiteral("status");
inline const QString kEligible = QStringLiteral("eligible");
inline const QString kExisting = QStringLiteral("existing");
inline const QString kHasManualMatches = QStringLiteral("has_manual_matches");
// Seconds since 1970 (a double).
inline const QString kCheckedAt = QStringLiteral("checked_at");

} // namespace CachedComparisonKey
