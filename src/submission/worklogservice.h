#pragma once

#include "submission/receiptstore.h"

#include <QHash>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

#include <functional>

class JiraClient;

// Where the worklog engine meets Jira and the receipt ledger: compares drafts with the worklogs Jira holds and
// posts the approved ones without ever posting one twice. Both calls block on the network; callers run them on
// the Jira client's serial queue (`JiraClient::queue()`), and progress callbacks arrive on that queue too.
class WorklogService
{
public:
    using Progress = std::function<void(const QVariantMap &event)>;

    WorklogService(JiraClient &client, const QString &directory);

    JiraClient &client() { return m_client; }
    const ReceiptStore &store() const { return m_store; }
    QString directory() const { return m_directory; }

    // Both calls report a failure the same way: a "failed" progress event, then a NamedFailure thrown to the
    // caller with the sentence for the user (a system error becomes a "JiraError" with a general sentence).

    // {"drafts": the enriched drafts, "account": the user's account id, "receipts_found": the receipts still
    // "pending" whose worklog Jira holds, as {"marker", "id", "issue", "cloud", "account"}} (records/comparison.h).
    // A draft whose sessions a receipt under another marker covers is compared with that receipt, so it is never
    // eligible and carries "jira_receipt_state". Progress events carry "phase" = "compare" and "state" "start",
    // "active", "page", "complete" or "failed"; a failure with Jira's own explanation carries it as "detail", in the
    // "failed" event and in the failure.
    QVariantMap checkDrafts(const QVariantList &drafts, const QString &cloud, const Progress &progress = {});
    // The same, for callers written before `checkDrafts` threw: a failure is returned as {"error": the reason}.
    QVariantMap compareDrafts(const QVariantList &drafts, const QString &cloud, const Progress &progress = {});

    // Whether posting reduces each issue's remaining estimate; read when the user confirms, carried with the
    // request.
    enum class Estimate { Leave, Reduce };

    // Posts the approved rows one at a time under the submission lock, each with a receipt saved before and
    // after its POST. `account` and `generation` are those of the comparison the user saw. Progress events
    // carry "phase" = "post" and "state" "submitting", "complete" or "failed". Failures ("SubmissionLock",
    // "ReceiptError", "AccountChanged", "ConnectionChanged" when the user reconnected since the check,
    // "Excluded", "Duplicate", "Changed", "Assignments", "JiraError") are thrown after the "failed" event. A row any of
    // whose sessions a receipt already covers (posted, or of unknown outcome) is refused as "Duplicate", whatever its
    // marker. Receipts still "pending" whose worklog the last comparison found in Jira are recorded as "posted" first.
    // Returns one record per posted worklog: {"marker", "issue", "id", "seconds", "source_keys"}.
    QVariantList postDrafts(const QVariantList &drafts, const QString &cloud, const QString &account, qint64 generation,
        Estimate estimate, const Progress &progress = {});
    // The same, with the estimate preference as it is when the run starts.
    QVariantList postDrafts(const QVariantList &drafts, const QString &cloud, const QString &account, qint64 generation,
        const Progress &progress = {});

private:
    QVariantList postRows(const QVariantList &rows, const QString &cloud, const QString &account, qint64 generation,
        Estimate estimate, const Progress &report, qint64 &completed, QString &issue, QStringList &sourceKeys);
    // The receipts, once the account and the connection are those the user approved under, with the pending
    // receipts the last comparison proved recorded as posted.
    QVariantMap openLedger(const QString &cloud, const QString &account, qint64 generation);
    // Records as "posted" the pending receipts whose worklogs the last comparison found; saves when any changed.
    bool settle(QVariantMap &receipts, const QString &cloud, const QString &account);

    JiraClient &m_client;
    QString m_directory;
    ReceiptStore m_store;
    // Marker -> {"marker", "id", "issue", "cloud", "account"}: pending receipts whose worklog a comparison saw
    // in Jira, waiting for the next post run (the ledger's only writer) to record them.
    QHash<QString, QVariantMap> m_found;
};
