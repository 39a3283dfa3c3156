#include "submission/receiptcoverage.h"

#include "records/draft.h"
#include "records/receipt.h"
#include "records/session.h"
#include "records/worklog.h"
#include "worklogs/engine.h"

#include <QStringList>
#include <QVariantList>

namespace
{

const QString &kState = ReceiptKey::kState;
const QString &kPosted = ReceiptKey::kPosted;

QString text(const QVariantMap &map, const QString &key)
{
    return map.value(key).toString();
}

// What a receipt says it covers. A receipt without a usable coverage covers its own source key with all of
// its seconds: guessing less would let its session be posted again.
QVariantMap coverageOf(const QVariantMap &receipt)
{
    const QVariantMap coverage = receipt.value(ReceiptKey::kCoverage).toMap();
    if (!coverage.isEmpty())
        return coverage;
    const QString key = text(receipt, ReceiptKey::kSourceKey);
    if (key.isEmpty())
        return {};
    return {{key, receipt.value(ReceiptKey::kPayload).toMap().value(WorklogKey::kTimeSpentSeconds)}};
}

} // namespace

ReceiptCoverage::ReceiptCoverage(
    const QVariantMap &receipts, const QString &cloud, const QHash<QString, QString> &proven)
{
    for (auto it = receipts.constBegin(); it != receipts.constEnd(); ++it) {
        // Entries that are not records say nothing about sessions; the marker check still refuses them.
        if (it.value().typeId() != QMetaType::QVariantMap)
            continue;
        const QVariantMap receipt = it.value().toMap();
        const QString site = text(receipt, ReceiptKey::kCloud);
        if (!site.isEmpty() && site != cloud)
            continue;
        const bool posted = text(receipt, kState) == kPosted || proven.contains(it.key());
        const QVariantMap coverage = coverageOf(receipt);
        for (auto share = coverage.constBegin(); share != coverage.constEnd(); ++share) {
            if (!posted) {
                m_uncertain.insert(share.key(), receipt);
                continue;
            }
            m_posted[share.key()] += std::max<qint64>(share.value().toLongLong(), 0);
            m_postedBy.insert(share.key(), receipt);
        }
    }
}

qint64 ReceiptCoverage::trackedSeconds(const QVariantMap &session)
{
    if (!session.contains(SessionKey::kStartMs) || !session.contains(SessionKey::kEndMs))
        return -1;
    const qint64 difference
        = session.value(SessionKey::kEndMs).toLongLong() - session.value(SessionKey::kStartMs).toLongLong();
    return difference < -999 ? 0 : difference / 1000;
}

QList<ReceiptCoverage::Share> ReceiptCoverage::shares(const QVariantMap &row)
{
    QHash<QString, qint64> tracked;
    const QVariantList keys = row.value(DraftKey::kSourceKeys).toList();
    const QVariantList sessions = row.value(DraftKey::kSourceSessions).toList();
    if (!keys.isEmpty() && keys.size() == sessions.size()) {
        for (qsizetype index = 0; index < keys.size(); ++index)
            tracked.insert(keys.at(index).toString(), trackedSeconds(sessions.at(index).toMap()));
    } else {
        const QString key = text(row, DraftKey::kSourceKey);
        qint64 seconds = trackedSeconds(row.value(DraftKey::kSession).toMap());
        if (seconds < 0 && row.contains(DraftKey::kSeconds))
            seconds = row.value(DraftKey::kSeconds).toLongLong();
        tracked.insert(key, seconds);
    }

    QList<Share> result;
    const QVariantMap coverage = JRCoverage(row);
    for (const QString &key : JRSourceKeysForRows({row}))
        result.append({key, coverage.value(key).toLongLong(), tracked.value(key, -1)});
    return result;
}

QVariantMap ReceiptCoverage::blocking(const QVariantMap &row) const
{
    for (const Share &share : shares(row)) {
        const auto uncertain = m_uncertain.constFind(share.key);
        if (uncertain != m_uncertain.constEnd())
            return *uncertain;
        if (share.seconds < 1 || !m_postedBy.contains(share.key))
            continue;
        const qint64 posted = m_posted.value(share.key);
        // Unknown tracked time: only a session posted already can be refused.
        const bool covered
            = share.tracked < 0 || posted >= share.tracked || posted + share.seconds > share.tracked + kRoundingSlack;
        if (covered)
            return m_postedBy.value(share.key);
    }
    return {};
}

void ReceiptCoverage::add(const QVariantMap &row)
{
    const QVariantMap receipt {{kState, kPosted}, {ReceiptKey::kIssue, row.value(DraftKey::kIssue)}};
    for (const Share &share : shares(row)) {
        if (share.seconds < 1)
            continue;
        m_posted[share.key] += share.seconds;
        m_postedBy.insert(share.key, receipt);
    }
}
