#include "app/promptlogic.h"
#include "platform/clock.h"
#include "worklogs/preferences.h"

#include <QSettings>

#include <gtest/gtest.h>

namespace
{

const QDateTime kStart(QDate(2026, 3, 10), QTime(10, 0)); // a Tuesday

QVariantMap session(const QString &issue, qint64 localId, const QDateTime &start, const QDateTime &end)
{
    QVariantMap s;
    s.insert(QStringLiteral("date"), start.date().toString(Qt::ISODate));
    s.insert(QStringLiteral("issue"), issue);
    s.insert(QStringLiteral("description"), QString(issue + QStringLiteral(" work")));
    s.insert(QStringLiteral("comment"), QString(issue + QStringLiteral(" work")));
    s.insert(QStringLiteral("start_ms"), start.toMSecsSinceEpoch());
    s.insert(QStringLiteral("end_ms"), end.isValid() ? end.toMSecsSinceEpoch() : qint64(0));
    s.insert(QStringLiteral("local_id"), localId);
    s.insert(QStringLiteral("api_id"), 0);
    s.insert(QStringLiteral("project"), 7);
    s.insert(QStringLiteral("source_account"), QStringLiteral("acct"));
    s.insert(QStringLiteral("duration"), end.isValid() ? start.secsTo(end) : qint64(0));
    return s;
}

class FakePresenter : public PromptPresenter
{
public:
    bool visible() const override { return shown; }
    void show(const PromptContent &c) override
    {
        shown = true;
        content = c;
        ++shows;
    }
    void dismiss() override { shown = false; }
    void showOutcome(const QString &text, bool) override { outcome = text; }

    bool shown = false;
    int shows = 0;
    PromptContent content;
    QString outcome;
};

// The test's "now" as both kinds of time: the switch observer measures its settling time on the monotonic one.
class FollowingClock : public Clock
{
public:
    explicit FollowingClock(const QDateTime *now)
        : m_now(now)
    {
    }
    QDateTime wallNow() const override { return *m_now; }
    qint64 monotonicMs() const override { return m_now->toMSecsSinceEpoch(); }

private:
    const QDateTime *m_now;
};

// Drives a coordinator through a real issue switch on a clock the test moves.
class PromptTest : public ::testing::Test
{
public:
    void TearDown() override { Clock::setShared(nullptr); }

    void SetUp() override
    {
        Clock::setShared(&clock);
        QSettings().clear();
        compared.clear();
        completions.clear();
        postedResults.clear();
        popup.shown = false;
        popup.outcome.clear();
        LogPromptHost host;
        host.isConnected = [this] { return connected; };
        host.busy = [this] { return busy; };
        host.posting = [] { return false; };
        host.readyForPrompt = [this] { return ready; };
        host.comparePromptSession
            = [this](const QVariantMap &s, const QVariantList &, LogPromptHost::CompareCompletion done) {
                  compared.append(s);
                  completions.append(std::move(done));
              };
        host.postPrompt = [this](const QVariantMap &result, LogPromptHost::PostCompletion done) {
            postedResults.append(result);
            done(postSucceeds, QString());
        };
        host.resolveSession = [this](const QVariantMap &s) { return edit ? edit(s) : s; };
        host.siteName = [] { return QStringLiteral("Acme"); };
        coordinator = std::make_unique<LogPromptCoordinator>(host, &clock);
        coordinator->setPresenters(&popup, nullptr);
    }

    // ABC-1 runs from 10:00, then the user switches to ABC-2 at 10:20; ABC-1's record ends at the switch.
    void switchIssue()
    {
        first = session(QStringLiteral("ABC-1"), 1, kStart, {});
        now = kStart.addSecs(60);
        observe({first}, QStringLiteral("ABC-1 work"), kStart);
        const QDateTime switched = kStart.addSecs(20 * 60);
        now = switched;
        first = session(QStringLiteral("ABC-1"), 1, kStart, switched);
        second = session(QStringLiteral("ABC-2"), 2, switched, {});
        observe({second, first}, QStringLiteral("ABC-2 work"), switched);
        now = switched.addMSecs(2100);
        observe({second, first}, QStringLiteral("ABC-2 work"), switched);
    }

    void observe(const QVariantList &sessions, const QString &description, const QDateTime &start)
    {
        lastSessions = sessions;
        TrackingState tracking;
        tracking.active = tracking.live = true;
        tracking.description = description;
        tracking.project = 7;
        tracking.startMs = double(start.toMSecsSinceEpoch());
        lastTracking = tracking;
        coordinator->observeSwitch(sessions, tracking);
    }

    void observeAgain() { coordinator->observeSwitch(lastSessions, lastTracking); }

    static QVariantMap result(qint64 seconds, const QVariantList &manual = {})
    {
        const QVariantMap post = {{QStringLiteral("issue"), QStringLiteral("ABC-1")},
            {QStringLiteral("post_seconds"), seconds}, {QStringLiteral("existing"), 0},
            {QStringLiteral("combined_count"), 1}, {QStringLiteral("comment"), QStringLiteral("ABC-1 work")}};
        return {{QStringLiteral("post"), post}, {QStringLiteral("ended_eligible"), true},
            {QStringLiteral("manual_matches"), manual}};
    }

    void promptWithResult()
    {
        switchIssue();
        ASSERT_EQ(compared.size(), 1);
        completions.takeFirst()(result(1200));
        ASSERT_TRUE(popup.shown);
    }

    bool connected = true, busy = false, ready = true, postSucceeds = true;
    QDateTime now = kStart;
    FollowingClock clock {&now};
    QVariantMap first, second;
    QVariantList lastSessions;
    TrackingState lastTracking;
    QList<QVariantMap> compared;
    QList<LogPromptHost::CompareCompletion> completions;
    QList<QVariantMap> postedResults;
    std::function<QVariantMap(const QVariantMap &)> edit;
    FakePresenter popup;
    std::unique_ptr<LogPromptCoordinator> coordinator;
};

TEST_F(PromptTest, OffersTheEndedSessionAndRendersIt)
{
    switchIssue();
    ASSERT_EQ(compared.size(), 1);
    EXPECT_EQ(compared.first().value(QStringLiteral("issue")).toString(), QStringLiteral("ABC-1"));
    completions.takeFirst()(result(1200, {QVariantMap {{QStringLiteral("id"), QStringLiteral("9")}}}));
    ASSERT_TRUE(popup.shown);
    EXPECT_EQ(popup.content.title, QStringLiteral("Log 20m to ABC-1?"));
    const QList<QPair<QString, QString>> rows = {{QStringLiteral("Already in Jira"), QStringLiteral("nothing yet")},
        {QStringLiteral("Sessions"), QStringLiteral("1 today")},
        {QStringLiteral("Comment"), QStringLiteral("ABC-1 work")}, {QStringLiteral("Site"), QStringLiteral("Acme")}};
    EXPECT_EQ(popup.content.details, rows);
    EXPECT_EQ(popup.content.notice, QStringLiteral("Jira may already have this time, logged by hand."));
    EXPECT_EQ(popup.content.primaryTitle, QStringLiteral("Log now"));
    EXPECT_TRUE(postedResults.isEmpty()) << "nothing is posted before Log now";
}

TEST_F(PromptTest, ErrorsAndIneligibleResultsShowNothing)
{
    for (const QVariantMap &bad : {QVariantMap {{QStringLiteral("error"), QStringLiteral("JiraError")}},
             QVariantMap {{QStringLiteral("post"), result(60).value(QStringLiteral("post"))}},
             QVariantMap {{QStringLiteral("ended_eligible"), true}}}) {
        SetUp();
        switchIssue();
        ASSERT_EQ(completions.size(), 1);
        completions.takeFirst()(bad);
        EXPECT_FALSE(popup.shown);
    }
}

class WaitTest : public PromptTest, public ::testing::WithParamInterface<std::pair<int, bool>>
{
};

TEST_P(WaitTest, ASwitchThatWaitedTooLongIsForgotten)
{
    const auto [waited, offered] = GetParam();
    ready = false; // Worklogs is still busy with something else
    switchIssue();
    EXPECT_TRUE(compared.isEmpty());
    EXPECT_TRUE(coordinator->hasPendingSwitch());
    ready = true;
    now = now.addSecs(waited);
    observeAgain();
    EXPECT_EQ(compared.size(), offered ? 1 : 0);
    EXPECT_EQ(coordinator->hasPendingSwitch(), offered);
}

INSTANTIATE_TEST_SUITE_P(Waits, WaitTest,
    ::testing::Values(std::pair {5, true}, std::pair {59, true}, std::pair {60, true}, std::pair {61, false},
        std::pair {300, false}));

TEST_F(PromptTest, LateComparisonOfAnEarlierGenerationIsDropped)
{
    switchIssue();
    ASSERT_EQ(completions.size(), 1);
    auto stale = completions.takeFirst();
    // The user disconnects and reconnects; a new switch starts a new comparison.
    connected = false;
    observeAgain();
    connected = true;
    const int generation = coordinator->generation();
    stale(result(1200));
    EXPECT_FALSE(popup.shown);
    EXPECT_EQ(coordinator->generation(), generation);
}

struct Refusal {
    const char *name;
    std::function<void(PromptTest &)> change;
};

class RefusalTest : public PromptTest, public ::testing::WithParamInterface<int>
{
};

TEST_P(RefusalTest, LogNowIsRefusedWhenTheSessionChangedOrJiraIsBusy)
{
    static const QList<Refusal> refusals = {
        {"comment edited",
            [](PromptTest &t) {
                t.edit = [](QVariantMap s) {
                    s.insert(QStringLiteral("comment"), QStringLiteral("edited"));
                    return s;
                };
            }},
        {"end moved",
            [](PromptTest &t) {
                t.edit = [](QVariantMap s) {
                    s.insert(QStringLiteral("end_ms"), s.value(QStringLiteral("end_ms")).toLongLong() + 60000);
                    return s;
                };
            }},
        {"excluded",
            [](PromptTest &t) {
                t.edit = [](QVariantMap s) {
                    s.insert(QStringLiteral("jira_exclusion"),
                        QVariantMap {{QStringLiteral("kind"), QStringLiteral("ignore")}});
                    return s;
                };
            }},
        {"gone", [](PromptTest &t) { t.edit = [](const QVariantMap &) { return QVariantMap(); }; }},
        {"busy", [](PromptTest &t) { t.busy = true; }},
        {"tracking it again", [](PromptTest &t) { t.observe({t.first}, QStringLiteral("ABC-1 work"), kStart); }},
    };
    const Refusal &refusal = refusals.at(GetParam());
    promptWithResult();
    refusal.change(*this);
    coordinator->logPrompt();
    EXPECT_TRUE(postedResults.isEmpty()) << refusal.name;
    EXPECT_FALSE(popup.shown) << refusal.name;
}

INSTANTIATE_TEST_SUITE_P(Changes, RefusalTest, ::testing::Range(0, 6));

TEST_F(PromptTest, LogNowPostsOnceAndReportsTheOutcome)
{
    for (const bool succeeds : {true, false}) {
        SetUp();
        postSucceeds = succeeds;
        promptWithResult();
        popup.primaryAction();
        ASSERT_EQ(postedResults.size(), 1);
        EXPECT_FALSE(popup.shown);
        EXPECT_EQ(popup.outcome,
            succeeds ? QStringLiteral("Logged 20m to ABC-1") : QStringLiteral("Couldn't log 20m to ABC-1"));
        popup.primaryAction(); // a second press has nothing left to post
        EXPECT_EQ(postedResults.size(), 1);
    }
}

TEST_F(PromptTest, TurnedOffOrDisconnectedNeverCompares)
{
    QSettings().setValue(QStringLiteral("AskToLogOnIssueSwitch"), false);
    switchIssue();
    EXPECT_TRUE(compared.isEmpty());
    QSettings().remove(QStringLiteral("AskToLogOnIssueSwitch"));
    connected = false;
    switchIssue();
    EXPECT_TRUE(compared.isEmpty());
}

// Workday reminder: a day with one finished 1h 10m session on ABC-1.
class WorkdayTest : public PromptTest
{
protected:
    void feed(const QDateTime &at, bool live = false)
    {
        now = at;
        const QDateTime start(at.date(), QTime(9, 0));
        QVariantMap s = session(QStringLiteral("ABC-1"), 1, start, start.addSecs(70 * 60));
        TrackingState tracking;
        tracking.live = tracking.active = live;
        coordinator->observeSwitch({s}, tracking);
        coordinator->checkWorkdayEnd();
    }
};

TEST_F(WorkdayTest, RemindsOncePerDayAfterTheEndOfTheWorkday)
{
    JRSetWorkdayReminderEnabled(true);
    JRSetWorkdayMinutes(9 * 60, 17 * 60);
    feed(QDateTime(QDate(2026, 3, 10), QTime(16, 59)));
    EXPECT_EQ(popup.shows, 0) << "before the end of the day";
    feed(QDateTime(QDate(2026, 3, 10), QTime(17, 30)), true);
    EXPECT_EQ(popup.shows, 0) << "never while tracking is live";
    feed(QDateTime(QDate(2026, 3, 10), QTime(17, 30)));
    ASSERT_EQ(popup.shows, 1);
    EXPECT_EQ(popup.content.title, QStringLiteral("1h 10m not in Jira yet"));
    EXPECT_EQ(popup.content.subtitle, QStringLiteral("1 worklog · ABC-1"));
    EXPECT_EQ(popup.content.primaryTitle, QStringLiteral("Review…"));
    popup.later();
    feed(QDateTime(QDate(2026, 3, 10), QTime(18, 0)));
    EXPECT_EQ(popup.shows, 1) << "a second check the same day shows nothing";
    feed(QDateTime(QDate(2026, 3, 11), QTime(17, 0)));
    EXPECT_EQ(popup.shows, 2) << "the next day reminds again";
}

TEST_F(WorkdayTest, WeekendsOnlyWhenChosenAndNeverWhenOff)
{
    JRSetWorkdayMinutes(9 * 60, 17 * 60);
    JRSetWorkdayReminderEnabled(false);
    feed(QDateTime(QDate(2026, 3, 10), QTime(18, 0)));
    EXPECT_EQ(popup.shows, 0);
    JRSetWorkdayReminderEnabled(true);
    feed(QDateTime(QDate(2026, 3, 14), QTime(18, 0))); // Saturday
    EXPECT_EQ(popup.shows, 0);
    JRSetWorkdayWeekendsIncluded(true);
    feed(QDateTime(QDate(2026, 3, 15), QTime(18, 0))); // Sunday
    EXPECT_EQ(popup.shows, 1);
}

TEST(WorkdaySummaryText, ListsIssuesAndCounts)
{
    QSettings().clear();
    const QDate day(2026, 3, 10);
    const auto sessions = [&](const QStringList &issues) {
        QVariantList list;
        qint64 id = 1;
        QDateTime start(day, QTime(8, 0));
        for (const QString &issue : issues) {
            list.append(session(issue, id++, start, start.addSecs(30 * 60)));
            start = start.addSecs(3600);
        }
        return list;
    };
    const QDateTime at(day, QTime(18, 0));
    struct Case {
        QStringList issues;
        QString title, subtitle;
    };
    const QList<Case> cases = {
        {{QStringLiteral("ABC-1"), QStringLiteral("ABC-2")}, QStringLiteral("1h not in Jira yet"),
            QStringLiteral("2 worklogs · ABC-1 and ABC-2")},
        {{QStringLiteral("ABC-1"), QStringLiteral("ABC-2"), QStringLiteral("ABC-3"), QStringLiteral("ABC-4")},
            QStringLiteral("2h not in Jira yet"), QStringLiteral("4 worklogs · ABC-1 and 3 more")},
        {{QStringLiteral("Unassigned")}, QString(), QString()},
    };
    for (const Case &c : cases) {
        const WorkdaySummary summary = HLWorkdaySummary(sessions(c.issues), at);
        EXPECT_EQ(summary.title, c.title) << c.issues.join(u',').toStdString();
        EXPECT_EQ(summary.subtitle, c.subtitle) << c.issues.join(u',').toStdString();
    }
}

} // namespace
