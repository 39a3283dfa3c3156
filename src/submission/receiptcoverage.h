#pragma once

#include <QHash>
#include <QString>
#include <QVariantMap>

// Which tracked sessions the receipts of one Jira site already account for, built once per compare or post
// run. A worklog's marker changes with its group, its issue and the seconds already logged, so a guard that
// looks receipts up by marker alone forgets a session as soon as any of these changes; the coverage of every
// receipt does not.
class ReceiptCoverage
{
public:
    // Posting may put up to this much more than a session tracked into Jira: a combined worklog's total is
    // rounded to the minute once, and its last session takes the rounding.
    static constexpr qint64 kRoundingSlack = 30;

    // `proven`: markers of "pending" receipts whose worklog Jira was seen to hold; they count as posted.
    ReceiptCoverage(const QVariantMap &receipts, const QString &cloud, const QHash<QString, QString> &proven = {});

    // The receipt that forbids posting `row` now, or an empty record: a receipt not known to be posted that
    // covers any session of the row, or posted receipts that, with the seconds the row would add, put more of a
    // session's time into Jira than it tracked.
    QVariantMap blocking(const QVariantMap &row) const;

    // Counts the row's seconds as posted for the rest of this run, so two rows of one run cannot together
    // post a session twice.
    void add(const QVariantMap &row);

    // Tracked whole seconds of a session record; -1 when the record gives none.
    static qint64 trackedSeconds(const QVariantMap &session);

private:
    struct Share {
        QString key;
        qint64 seconds = 0; // what the row would post for the session
        qint64 tracked = -1; // what the session tracked; -1: unknown
    };
    static QList<Share> shares(const QVariantMap &row);

    QHash<QString, QVariantMap> m_uncertain; // source key -> a receipt of unknown outcome covering it
    QHash<QString, qint64> m_posted; // source key -> seconds that posted receipts attribute to it
    QHash<QString, QVariantMap> m_postedBy; // source key -> a posted receipt covering it
};
