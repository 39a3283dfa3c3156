#pragma once

// The keys of a receipt: what the ledger ("jira-receipts.json", `ReceiptStore`) holds per marker for every
// worklog the program sent, written before the POST ("pending") and after Jira's answer ("posted").
//
// When you add a key, also change `WorklogService::postRows` (the only writer), `WorklogService::settle` and
// `ReceiptCoverage` (which reads what a receipt covers).

#include <QString>

namespace ReceiptKey
{

// kPending, kPosted, or kUnknown for an entry that is not a record.
inline const QString kState = QStringLiteral("state");
// The issue the worklog was sent to.
inline const QString kIssue = QStringLiteral("issue");
// The draft's source key, and the split of its seconds over source keys (`JRCoverage`).
inline const QString kSourceKey = QStringLiteral("source_key");
inline const QString kCoverage = QStringLiteral("coverage");
// The Jira site the worklog was sent to.
inline const QString kCloud = QStringLiteral("cloud");
// The body as posted (records/worklog.h).
inline const QString kPayload = QStringLiteral("payload");
// Jira's worklog id, once known.
inline const QString kId = QStringLiteral("id");

// A comparison's proof that a pending receipt's worklog is in Jira also names the marker and the account.
inline const QString kMarker = QStringLiteral("marker");
inline const QString kAccount = QStringLiteral("account");

// The values of "state".
inline const QString kPending = QStringLiteral("pending");
inline const QString kPosted = QStringLiteral("posted");
inline const QString kUnknown = QStringLiteral("unknown");

} // namespace ReceiptKey
