#include "servicefixture.h"

#include "support/testenv.h"
#include "worklogs/engine.h"

#include <QRandomGenerator>

#include <iostream>

namespace
{

const QStringList kIssues {
    QStringLiteral("ABC-1"), QStringLiteral("ABC-2"), QStringLiteral("ABC-3"), QStringLiteral("OPS-7")};
// Few descriptions, so that one rule moves sessions of several days at once.
const QStringList kDescriptions {QStringLiteral("Design"), QStringLiteral("Review"), QStringLiteral("Deploy"),
    QStringLiteral("Support"), QStringLiteral("Planning")};
constexpr int kFirstDay = 2;
constexpr int kDays = 12;

} // namespace

// A user's weeks against a Jira that loses answers, creates worklogs late, and sees issues, rules, manual
// matches and exclusions change between two attempts. After every step the product's promise is checked: no
// session's seconds in Jira exceed what it tracked.
class Soak : public ServiceFixture
{
protected:
    enum Fault { LateCreate, IssueChange, RuleChange, Regrouping, ManualMatch, LateExclusion, PostFault, FaultKinds };

    template<typename T> static T pick(QRandomGenerator &random, const QList<T> &list)
    {
        return list.at(qsizetype(random.bounded(quint32(list.size()))));
    }

    // What the Worklogs window shows for a day: sessions resolved through the assignments and, from the
    // ledger, time covered by a posted receipt as logged and sessions of a pending receipt as uncertain. A
    // careless caller skips the ledger.
    QVariantList view(int day, bool careful) const
    {
        QHash<QString, qint64> logged;
        QSet<QString> uncertain;
        if (careful) {
            for (const QVariant &item : ledger()) {
                const QVariantMap receipt = item.toMap();
                const QVariantMap coverage = receipt.value(QStringLiteral("coverage")).toMap();
                for (auto it = coverage.constBegin(); it != coverage.constEnd(); ++it) {
                    if (receipt.value(QStringLiteral("state")).toString() == QStringLiteral("posted"))
                        logged[it.key()] += it.value().toLongLong();
                    else
                        uncertain.insert(it.key());
                }
            }
        }
        const IssueAssignments assignments(m_directory);
        QVariantList result;
        for (const QVariantMap &tracked : m_tracked) {
            if (tracked.value(QStringLiteral("date")).toString() != at(day, 0).date().toString(Qt::ISODate))
                continue;
            QVariantMap copy = assignments.resolve(tracked, kCloud);
            const QString key = JRSourceKey(copy);
            copy.insert(QStringLiteral("jira_logged_seconds"), logged.value(key));
            if (uncertain.contains(key))
                copy.insert(QStringLiteral("jira_receipt_state"), QStringLiteral("pending"));
            result.append(copy);
        }
        return result;
    }

    // Tracks one more session on a random day.
    void track(QRandomGenerator &random)
    {
        const int day = kFirstDay + int(random.bounded(quint32(m_days)));
        QDateTime &cursor = m_cursor[day];
        if (!cursor.isValid())
            cursor = at(day, 7, 30);
        if (cursor.time().hour() >= 21)
            return;
        // Whole minutes, so every posted second can be traced back exactly.
        const qint64 seconds = 60 * (1 + random.bounded(90));
        m_tracked.append(session(pick(random, kIssues), cursor, seconds, pick(random, kDescriptions), ++m_localId));
        cursor = cursor.addSecs(seconds + 60 * random.bounded(20));
    }

    int randomDay(QRandomGenerator &random) const
    {
        if (m_tracked.isEmpty())
            return kFirstDay;
        return QDateTime::fromMSecsSinceEpoch(pick(random, m_tracked).value(QStringLiteral("start_ms")).toLongLong())
            .date()
            .day();
    }

    QVariantMap check(int day, bool careful)
    {
        const QVariantMap comparison = compare(draftsOf(view(day, careful), at(day, 12)));
        // A caller that keeps trusting what it saw first: every draft found postable once stays ticked.
        for (const QVariant &item : comparison.value(QStringLiteral("drafts")).toList()) {
            const QVariantMap draft = item.toMap();
            if (draft.value(QStringLiteral("include")).toBool())
                m_firstSeen.insert(draft.value(QStringLiteral("source_key")).toString(), draft);
        }
        return comparison;
    }

    // The ticked drafts as worklogs; `subset` unticks some of a day's drafts, regrouping what is combined.
    QVariantList tick(QRandomGenerator &random, const QVariantMap &comparison, bool subset)
    {
        QVariantList ticked;
        for (const QVariant &draft : comparison.value(QStringLiteral("drafts")).toList())
            if (draft.toMap().value(QStringLiteral("include")).toBool() && (!subset || random.bounded(2) == 0))
                ticked.append(draft);
        return JRWorklogsToPost(ticked);
    }

    // What a stale caller would post for a day: every draft it once saw as postable.
    QVariantList stale(int day) const
    {
        QVariantList rows;
        const QString date = at(day, 0).date().toString(Qt::ISODate);
        for (const QVariantMap &draft : m_firstSeen)
            if (draft.value(QStringLiteral("session")).toMap().value(QStringLiteral("date")).toString() == date)
                rows.append(draft);
        return JRWorklogsToPost(rows);
    }

    void changeIssue(QRandomGenerator &random)
    {
        if (m_tracked.isEmpty())
            return;
        m_tracked[qsizetype(random.bounded(quint32(m_tracked.size())))].insert(
            QStringLiteral("issue"), pick(random, kIssues));
        ++m_faults[IssueChange];
    }

    void changeRule(QRandomGenerator &random)
    {
        if (m_tracked.isEmpty())
            return;
        IssueAssignments(m_directory)
            .saveSession(pick(random, m_tracked), kCloud, pick(random, kIssues), QString(), true, false);
        ++m_faults[RuleChange];
    }

    void setExclusion(const QVariantMap &tracked, const QVariantMap &exclusion)
    {
        IssueAssignments(m_directory).setExclusion(exclusion, tracked, kCloud);
    }

    // A worklog made by hand in Jira, matched to a session: `whole` marks the session as logged.
    void manualMatch(QRandomGenerator &random, bool whole)
    {
        if (m_tracked.isEmpty())
            return;
        const QVariantMap tracked = pick(random, m_tracked);
        const QString issue = IssueAssignments(m_directory).resolve(tracked, kCloud).value(kIssueKey).toString();
        if (!kIssues.contains(issue))
            return;
        const qint64 seconds = whole ? tracked.value(QStringLiteral("duration")).toLongLong() : 600;
        const QDateTime start = QDateTime::fromMSecsSinceEpoch(tracked.value(QStringLiteral("start_ms")).toLongLong());
        const QString id = m_server.addWorklog({issue, kAccount, start, seconds, {}, {}, {}, {}});
        setExclusion(tracked,
            {{QStringLiteral("kind"), QStringLiteral("manual")}, {kIssueKey, issue}, {QStringLiteral("worklog_id"), id},
                {QStringLiteral("seconds"), whole ? 0 : seconds}});
        ++m_faults[ManualMatch];
    }

    void ignore(const QVariantMap &tracked)
    {
        setExclusion(tracked, {{QStringLiteral("kind"), QStringLiteral("ignore")}});
    }

    // Jira creates the oldest worklog whose answer was dropped.
    void createLate()
    {
        if (m_late.isEmpty())
            return;
        ServiceFixture::createLate(m_late.takeFirst());
        ++m_faults[LateCreate];
    }

    // One fault of the kinds the real service shows, on the next post run. Returns true when the POST is to be
    // dropped unhandled, for Jira to create the worklog later.
    bool injectPostFault(QRandomGenerator &random, const QVariantList &rows)
    {
        const QString issue = pick(random, rows).toMap().value(kIssueKey).toString();
        const QString write = QStringLiteral("/issue/") + issue + QStringLiteral("/worklog$");
        ++m_faults[PostFault];
        switch (random.bounded(8)) {
        case 0: {
            standin::Fault fault = standin::Fault::createThenDrop();
            fault.pathPattern = write;
            m_server.addFault(fault);
            return false;
        }
        case 1:
        case 2:
            m_server.addFault(standin::Fault::drop(QStringLiteral("POST"), write));
            return true;
        case 3:
            m_server.addFault(standin::Fault::serviceUnavailable(QStringLiteral("POST"), write));
            return false;
        case 4:
            m_server.addFault(standin::Fault::tooManyRequests(QStringLiteral("POST"), write));
            return false;
        case 5:
            m_server.addFault(standin::Fault::serviceUnavailable(QStringLiteral("GET"), write));
            return false;
        case 6:
            m_server.addFault(standin::Fault::drop(QStringLiteral("GET"), QStringLiteral("/myself$")));
            return false;
        default:
            // Someone logs time by hand on the issue and day of a worklog between the check and the post.
            m_server.addWorklog({issue, kAccount,
                JRDate(rows.first().toMap().value(QStringLiteral("started"))).addSecs(-600), 600, {}, {}, {}, {}});
            return false;
        }
    }

    PostOutcome postRows(const QVariantList &rows, bool dropped)
    {
        const int before = worklogPosts();
        PostOutcome outcome = post(rows);
        const QList<standin::ReceivedRequest> posts
            = m_server.requests(QStringLiteral("POST"), QStringLiteral("/issue/[^/]+/worklog$"));
        // The dropped POST is the run's last one; a run refused before it sent nothing to drop.
        if (dropped && !outcome.failure.isEmpty() && posts.size() > before)
            m_late.append(posts.last());
        m_server.clearFaults();
        return outcome;
    }

    // Checks every day again and runs an empty post, so that every pending receipt whose worklog Jira holds
    // is recorded as posted.
    void settleAll()
    {
        while (!m_late.isEmpty())
            createLate();
        for (int day = kFirstDay; day < kFirstDay + kDays; ++day)
            check(day, true);
        EXPECT_TRUE(post({}).failure.isEmpty());
    }

    QVariantList trackedSessions() const
    {
        QVariantList all;
        for (const QVariantMap &tracked : m_tracked)
            all.append(tracked);
        return all;
    }

    // A new user with an empty Jira, support folder and ledger.
    void resetWorld(int generation)
    {
        m_server.clearFaults();
        m_server.clearWorklogs();
        m_server.clearRequests();
        m_directory = testenv::freshDir(QStringLiteral("support-%1").arg(generation));
        m_service = std::make_unique<WorklogService>(*m_client, m_directory);
        m_tracked.clear();
        m_cursor.clear();
        m_firstSeen.clear();
        m_late.clear();
    }

    static inline const QString kIssueKey = QStringLiteral("issue");
    QList<QVariantMap> m_tracked;
    QHash<int, QDateTime> m_cursor;
    QHash<QString, QVariantMap> m_firstSeen;
    QList<standin::ReceivedRequest> m_late;
    qint64 m_localId = 0;
    int m_days = kDays; // over which sessions are tracked
    int m_faults[FaultKinds] = {};
};

TEST_F(Soak, RandomFaultsOverManyRoundsNeverPutTheSameTimeInJiraTwice)
{
    constexpr int kRounds = 150;
    JRSetCombineDailyByIssue(true);
    QRandomGenerator random(20260302);
    int posted = 0;
    int failedRuns = 0;
    int staleRuns = 0;
    for (int round = 0; round < kRounds; ++round) {
        track(random);
        if (random.bounded(2) == 0)
            track(random);
        // Between two rounds: Jira catches up on a lost answer, the user edits issues, rules and matches.
        if (random.bounded(3) == 0)
            createLate();
        if (random.bounded(8) == 0)
            changeIssue(random);
        if (random.bounded(10) == 0)
            changeRule(random);
        if (random.bounded(10) == 0)
            manualMatch(random, random.bounded(2) == 0);

        const int day = randomDay(random);
        QVariantList rows;
        if (random.bounded(6) == 0) {
            rows = stale(day);
            staleRuns += rows.isEmpty() ? 0 : 1;
        } else {
            if (random.bounded(10) == 0)
                m_server.addFault(
                    standin::Fault::serviceUnavailable(QStringLiteral("GET"), QStringLiteral("/worklog$")));
            const QVariantMap comparison = check(day, random.bounded(5) != 0);
            m_server.clearFaults();
            if (comparison.contains(QStringLiteral("error")))
                continue;
            const bool subset = random.bounded(4) == 0;
            m_faults[Regrouping] += subset ? 1 : 0;
            rows = tick(random, comparison, subset);
        }
        if (rows.isEmpty())
            continue;
        if (random.bounded(10) == 0) {
            // Excluded after the check: the rows still carry what the check saw.
            const QVariantList sessions = rows.first().toMap().value(QStringLiteral("source_sessions")).toList();
            const QVariantMap tracked = sessions.isEmpty()
                ? rows.first().toMap().value(QStringLiteral("session")).toMap()
                : pick(random, sessions).toMap();
            ignore(tracked);
            ++m_faults[LateExclusion];
        }
        const bool dropped = random.bounded(2) == 0 && injectPostFault(random, rows);
        const PostOutcome outcome = postRows(rows, dropped);
        posted += int(outcome.posted.size());
        failedRuns += outcome.failure.isEmpty() ? 0 : 1;
        ASSERT_EQ(expectNoSessionOverposted(trackedSessions(), kIssues), 0) << "after round " << round;
    }

    settleAll();
    ASSERT_EQ(expectNoSessionOverposted(trackedSessions(), kIssues), 0);
    const int marked = expectJiraConsistentWithLedger(kIssues);
    // After checking every day again, a receipt left "pending" is one whose worklog Jira does not hold.
    QSet<QString> inJira;
    for (const QString &issue : kIssues)
        for (const QVariant &worklog : jiraWorklogs(issue))
            inJira.insert(JRLogMarker(worklog.toMap()));
    const QVariantMap receipts = ledger();
    for (auto it = receipts.constBegin(); it != receipts.constEnd(); ++it) {
        if (it.value().toMap().value(QStringLiteral("state")).toString() != QStringLiteral("posted")) {
            EXPECT_FALSE(inJira.contains(it.key())) << "a pending receipt whose worklog Jira holds";
        }
    }
    int confirmed = 0;
    int uncertain = 0;
    for (const QVariant &receipt : ledger())
        (receipt.toMap().value(QStringLiteral("state")).toString() == QStringLiteral("posted") ? confirmed
                                                                                               : uncertain)++;
    std::cout << "soak: rounds " << kRounds << ", sessions " << m_tracked.size() << ", faults: late creates "
              << m_faults[LateCreate] << ", issue changes " << m_faults[IssueChange] << ", rule changes "
              << m_faults[RuleChange] << ", regroupings " << m_faults[Regrouping] << ", manual matches "
              << m_faults[ManualMatch] << ", exclusions after a check " << m_faults[LateExclusion] << ", post faults "
              << m_faults[PostFault] << ", stale posts " << staleRuns << "; failed runs " << failedRuns
              << ", worklogs posted " << confirmed << " (plus " << uncertain << " uncertain; " << marked
              << " worklogs in Jira carry a marker), duplicates 0" << std::endl;
    EXPECT_GE(confirmed, posted);
    EXPECT_GT(confirmed, kRounds / 3) << "the soak must actually post";
    EXPECT_GT(failedRuns, kRounds / 10) << "the soak must actually hit faults";
    EXPECT_GE(marked, confirmed) << "every confirmed worklog is in Jira";
}

// Random sequences of what a user and Jira do, with the promise checked after every step. Reproduce a failing
// sequence with --gtest_random_seed=<its seed>: it then runs first.
TEST_F(Soak, RandomUserSequencesKeepEverySessionInJiraAtMostOnce)
{
    constexpr int kSequences = 10;
    constexpr int kSteps = 60;
    // Tracking, checking and posting are what users do most; each of them is three times as likely as the rest.
    static const QStringList kActions {QStringLiteral("track"), QStringLiteral("track"), QStringLiteral("track"),
        QStringLiteral("compare"), QStringLiteral("compare"), QStringLiteral("post"), QStringLiteral("post"),
        QStringLiteral("change issue"), QStringLiteral("tick subset"), QStringLiteral("compare"),
        QStringLiteral("post"), QStringLiteral("drop answer"), QStringLiteral("late create"),
        QStringLiteral("mark as logged"), QStringLiteral("ignore"), QStringLiteral("undo")};
    const quint32 given = quint32(GTEST_FLAG_GET(random_seed));
    const quint32 base = given != 0 ? given : 20260303;
    int sequences = 0;
    int steps = 0;
    int posted = 0;
    for (int sequence = 0; sequence < kSequences; ++sequence, ++sequences) {
        const quint32 seed = base + quint32(sequence);
        resetWorld(sequence);
        // Two days, so that the steps keep meeting the same sessions.
        m_days = 2;
        JRSetCombineDailyByIssue(seed % 2 == 0);
        QRandomGenerator random(seed);
        QVariantMap comparison;
        QVariantList rows;
        QStringList done;
        for (int step = 0; step < kSteps; ++step, ++steps) {
            // Tracking comes first, so that the other actions have something to act on.
            const QString action = step < 3 ? kActions.first() : pick(random, kActions);
            done.append(action);
            if (action == QStringLiteral("track")) {
                track(random);
            } else if (action == QStringLiteral("change issue")) {
                changeIssue(random);
            } else if (action == QStringLiteral("tick subset")) {
                rows = tick(random, comparison, true);
            } else if (action == QStringLiteral("compare")) {
                comparison = check(randomDay(random), random.bounded(4) != 0);
                rows = tick(random, comparison, false);
            } else if (action == QStringLiteral("post") && !rows.isEmpty()) {
                posted += int(postRows(rows, false).posted.size());
            } else if (action == QStringLiteral("drop answer") && !rows.isEmpty()) {
                m_server.addFault(standin::Fault::drop(QStringLiteral("POST"), QStringLiteral("/worklog$")));
                postRows(rows, true);
            } else if (action == QStringLiteral("late create")) {
                createLate();
            } else if (action == QStringLiteral("mark as logged")) {
                manualMatch(random, true);
            } else if (action == QStringLiteral("ignore") && !m_tracked.isEmpty()) {
                ignore(pick(random, m_tracked));
            } else if (action == QStringLiteral("undo") && !m_tracked.isEmpty()) {
                setExclusion(pick(random, m_tracked), {});
            }
            if (expectNoSessionOverposted(trackedSessions(), kIssues) != 0) {
                FAIL() << "seed " << seed << " (rerun with --gtest_random_seed=" << seed
                       << "), steps: " << qPrintable(done.join(QStringLiteral(", ")));
            }
        }
        expectJiraConsistentWithLedger(kIssues);
    }
    std::cout << "model: " << sequences << " sequences from seed " << base << ", " << steps << " steps, " << posted
              << " worklogs posted" << std::endl;
    EXPECT_GT(posted, sequences) << "the sequences must actually post";
}
