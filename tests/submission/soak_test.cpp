#include "servicefixture.h"

#include "worklogs/engine.h"

#include <QRandomGenerator>

#include <iostream>

namespace
{

const QStringList kIssues {
    QStringLiteral("ABC-1"), QStringLiteral("ABC-2"), QStringLiteral("ABC-3"), QStringLiteral("OPS-7")};
constexpr int kRounds = 120;
constexpr int kFirstDay = 2;
constexpr int kDays = 12;

} // namespace

class Soak : public ServiceFixture
{
protected:
    // What the Worklogs window does with the ledger before building drafts: time covered by a posted receipt
    // counts as logged, a pending receipt marks its sessions as uncertain.
    QVariantList resolvedSessions(int day) const
    {
        QHash<QString, qint64> logged;
        QSet<QString> uncertain;
        const QVariantMap receipts = ledger();
        for (const QVariant &item : receipts) {
            const QVariantMap receipt = item.toMap();
            const QVariantMap coverage = receipt.value(QStringLiteral("coverage")).toMap();
            for (auto it = coverage.constBegin(); it != coverage.constEnd(); ++it) {
                if (receipt.value(QStringLiteral("state")).toString() == QStringLiteral("posted"))
                    logged[it.key()] += it.value().toLongLong();
                else
                    uncertain.insert(it.key());
            }
        }
        QVariantList result;
        for (const QVariantMap &tracked : m_sessions.value(day)) {
            QVariantMap copy = tracked;
            const QString key = JRSourceKey(copy);
            copy.insert(QStringLiteral("jira_logged_seconds"), logged.value(key));
            if (uncertain.contains(key))
                copy.insert(QStringLiteral("jira_receipt_state"), QStringLiteral("pending"));
            result.append(copy);
        }
        return result;
    }

    // Tracks one more session on a random day; returns the day, or 0 when that day is full.
    int track(QRandomGenerator &random)
    {
        const int day = kFirstDay + int(random.bounded(kDays));
        QDateTime &cursor = m_cursor[day];
        if (!cursor.isValid())
            cursor = at(day, 7, 30);
        if (cursor.time().hour() >= 21)
            return 0;
        // Whole minutes, so every posted second can be traced back exactly.
        const qint64 seconds = 60 * (1 + random.bounded(90));
        const QString issue = kIssues.at(int(random.bounded(qsizetype(kIssues.size()))));
        const qint64 localId = ++m_localId;
        m_sessions[day].append(session(issue, cursor, seconds, QStringLiteral("Task %1").arg(localId), localId));
        cursor = cursor.addSecs(seconds + 60 * random.bounded(20));
        return day;
    }

    // One fault rule of the kinds the real service shows, on the next post run.
    void injectPostFault(QRandomGenerator &random, const QVariantList &rows)
    {
        const QString issue = rows.isEmpty()
            ? QStringLiteral(".")
            : rows.at(int(random.bounded(qsizetype(rows.size())))).toMap().value(QStringLiteral("issue")).toString();
        const QString write = QStringLiteral("/issue/") + issue + QStringLiteral("/worklog$");
        ++m_faults;
        switch (random.bounded(7)) {
        case 0: {
            standin::Fault fault = standin::Fault::createThenDrop();
            fault.pathPattern = write;
            m_server.addFault(fault);
            break;
        }
        case 1:
            m_server.addFault(standin::Fault::drop(QStringLiteral("POST"), write));
            break;
        case 2:
            m_server.addFault(standin::Fault::serviceUnavailable(QStringLiteral("POST"), write));
            break;
        case 3:
            m_server.addFault(standin::Fault::tooManyRequests(QStringLiteral("POST"), write));
            break;
        case 4:
            m_server.addFault(standin::Fault::serviceUnavailable(QStringLiteral("GET"), write));
            break;
        case 5:
            m_server.addFault(standin::Fault::drop(QStringLiteral("GET"), QStringLiteral("/myself$")));
            break;
        default:
            // Someone logs time by hand on the issue and day of a worklog between the check and the post.
            if (!rows.isEmpty())
                m_server.addWorklog({issue, kAccount,
                    JRDate(rows.first().toMap().value(QStringLiteral("started"))).addSecs(-600), 600, {}, {}, {}, {}});
            break;
        }
    }

    QHash<int, QList<QVariantMap>> m_sessions;
    QHash<int, QDateTime> m_cursor;
    qint64 m_localId = 0;
    int m_faults = 0;
};

TEST_F(Soak, RandomFaultsOverManyRoundsNeverPutTheSameTimeInJiraTwice)
{
    JRSetCombineDailyByIssue(true);
    QRandomGenerator random(20260302);
    int posted = 0;
    int failedRuns = 0;
    for (int round = 0; round < kRounds; ++round) {
        // Mostly the day just tracked, sometimes another: earlier uncertain or refused worklogs come back.
        int day = track(random);
        if (random.bounded(2) == 0)
            track(random);
        if (day == 0 || random.bounded(4) == 0)
            day = kFirstDay + int(random.bounded(kDays));
        const QVariantList drafts = draftsOf(resolvedSessions(day), at(day, 12));
        if (random.bounded(10) == 0) {
            ++m_faults;
            m_server.addFault(standin::Fault::serviceUnavailable(QStringLiteral("GET"), QStringLiteral("/worklog$")));
        }
        const QVariantMap comparison = compare(drafts);
        m_server.clearFaults();
        const QVariantList rows = approved(comparison);
        if (comparison.contains(QStringLiteral("error")) || rows.isEmpty())
            continue;
        if (random.bounded(2) == 0)
            injectPostFault(random, rows);
        const PostOutcome outcome = post(rows);
        m_server.clearFaults();
        posted += int(outcome.posted.size());
        failedRuns += outcome.failure.isEmpty() ? 0 : 1;
    }

    // Every posted second is in Jira once: per session, the seconds of all worklogs that carry it add up to
    // no more than it tracked, and no marker is on two worklogs.
    QHash<QString, qint64> tracked;
    for (const QList<QVariantMap> &daySessions : std::as_const(m_sessions))
        for (const QVariantMap &item : daySessions)
            tracked.insert(JRSourceKey(item), item.value(QStringLiteral("duration")).toLongLong());
    QHash<QString, qint64> inJira;
    QSet<QString> markers;
    int duplicates = 0;
    qint64 postedSeconds = 0;
    for (const QString &issue : kIssues) {
        for (const QVariant &item : jiraWorklogs(issue)) {
            const QVariantMap worklog = item.toMap();
            const QString marker = JRLogMarker(worklog);
            if (marker.isEmpty())
                continue;
            duplicates += markers.contains(marker) ? 1 : 0;
            markers.insert(marker);
            postedSeconds += worklog.value(QStringLiteral("timeSpentSeconds")).toLongLong();
            const QVariantMap sources = JRLogSources(worklog);
            for (auto it = sources.constBegin(); it != sources.constEnd(); ++it)
                inJira[it.key()] += it.value().toLongLong();
        }
    }
    for (auto it = inJira.constBegin(); it != inJira.constEnd(); ++it)
        duplicates += it.value() > tracked.value(it.key()) ? 1 : 0;
    const int marked = expectJiraConsistentWithLedger(kIssues);
    int confirmed = 0;
    int uncertain = 0;
    for (const QVariant &receipt : ledger())
        (receipt.toMap().value(QStringLiteral("state")).toString() == QStringLiteral("posted") ? confirmed
                                                                                               : uncertain)++;

    std::cout << "soak: rounds " << kRounds << ", sessions " << tracked.size() << ", faults injected " << m_faults
              << ", failed runs " << failedRuns << ", worklogs posted " << confirmed << " (plus " << uncertain
              << " uncertain; " << marked << " worklogs in Jira carry a marker, " << postedSeconds << " s), duplicates "
              << duplicates << std::endl;
    EXPECT_EQ(duplicates, 0);
    EXPECT_GE(confirmed, posted);
    EXPECT_GT(confirmed, kRounds / 2) << "the soak must actually post";
    EXPECT_GT(failedRuns, kRounds / 10) << "the soak must actually hit faults";
    EXPECT_GE(marked, confirmed) << "every confirmed worklog is in Jira";
}
