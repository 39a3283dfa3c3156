#pragma once

#include <QString>
#include <QVariantMap>

// The ledger of worklog submissions, "jira-receipts.json": one receipt per worklog marker, written before
// the POST ("pending") and replaced once Jira confirmed it ("posted"). The posting step is its only writer.
class ReceiptStore
{
public:
    explicit ReceiptStore(const QString &directory);

    QString path() const;

    // All receipts; empty when the file does not exist. A damaged ledger raises "ReceiptError": it is never
    // treated as empty, since an empty ledger would allow duplicates.
    QVariantMap receipts() const;

    // Replaces the ledger whole and atomically; raises "ReceiptError" when that fails.
    void saveReceipts(const QVariantMap &receipts) const;

private:
    QString m_directory;
};
