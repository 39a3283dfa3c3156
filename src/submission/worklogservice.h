#pragma once

#include "submission/receiptstore.h"

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

    // {"drafts": the enriched drafts, "account": the user's account id}, or {"error": the reason}. Progress
    // events carry "phase" = "compare" and "state" "start", "active", "page", "complete" or "failed".
    QVariantMap compareDrafts(const QVariantList &drafts, const QString &cloud, const Progress &progress = {});

    // Posts the approved rows one at a time under the submission lock, each with a receipt saved before and
    // after its POST. `account` and `generation` are those of the comparison the user saw; a run whose
    // generation no longer matches posts nothing. Progress events carry "phase" = "post" and "state"
    // "submitting", "complete" or "failed". Failures ("SubmissionLock", "ReceiptError", "AccountChanged",
    // "Excluded", "Duplicate", "Changed", "JiraError") are passed on to the caller after the "failed" event.
    // Returns one record per posted worklog: {"marker", "issue", "id", "seconds", "source_keys"}.
    QVariantList postDrafts(const QVariantList &drafts, const QString &cloud, const QString &account, qint64 generation,
        const Progress &progress = {});

private:
    QVariantList postRows(const QVariantList &rows, const QString &cloud, const QString &account, qint64 generation,
        const Progress &report, qint64 &completed, QString &issue, QStringList &sourceKeys);

    JiraClient &m_client;
    QString m_directory;
    ReceiptStore m_store;
};
