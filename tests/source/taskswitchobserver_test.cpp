#include "source/taskswitchobserver.h"

#include "platform/clock.h"

#include <gtest/gtest.h>

namespace
{

const QDateTime kBase = QDateTime::fromMSecsSinceEpoch(1'790'000'000'000LL);

QVariantMap session(qint64 id, const QString &issue, qint64 startMs, qint64 endMs, qint64 project = 42)
{
    return {{QStringLiteral("source_account"), QStringLiteral("1001_activity")}, {QStringLiteral("local_id"), id},
        {QStringLiteral("project"), project}, {QStringLiteral("issue"), issue}, {QStringLiteral("start_ms"), startMs},
        {QStringLiteral("end_ms"), endMs}};
}

QDateTime at(double seconds)
{
    return kBase.addMSecs(qint64(seconds * 1000));
}

class TaskSwitchObserverTest : public ::testing::Test
{
protected:
    // Tracking on ENG-1 (record 1, open) is observed, then at t=0 the tracker switched to ENG-2 (record 2).
    void trackFirstThenSwitch(qint64 firstEndMs)
    {
        const qint64 s1 = kBase.addSecs(-600).toMSecsSinceEpoch();
        m_first = session(1, QStringLiteral("ENG-1"), s1, s1 - 1);
        ASSERT_TRUE(observeActive({m_first}, QStringLiteral("ENG-1"), s1, at(-5)).isEmpty());
        m_first[QStringLiteral("end_ms")] = firstEndMs;
        m_second = session(2, QStringLiteral("ENG-2"), kBase.toMSecsSinceEpoch(), 0);
        m_records = {m_second, m_first};
    }

    // Observes at `now`, with real time passing as the wall clock says unless a test moved the wall clock.
    QVariantMap observe(const QVariantList &records, bool active, bool live, const QString &issue, double started,
        qint64 project, const QDateTime &now)
    {
        m_clock.setMonotonic(m_wallOffsetMs + kBase.msecsTo(now));
        m_clock.setWall(now);
        return m_observer.observe(records, active, live, issue, started, project, now);
    }

    QVariantMap observeActive(const QVariantList &records, const QString &issue, qint64 startMs, const QDateTime &now)
    {
        return observe(records, true, true, issue, double(startMs), 42, now);
    }

    QVariantMap observeSecond(const QDateTime &now)
    {
        return observeActive(m_records, QStringLiteral("ENG-2"), kBase.toMSecsSinceEpoch(), now);
    }

    TestClock m_clock;
    qint64 m_wallOffsetMs = 0; // how far the wall clock was set back
    TaskSwitchObserver m_observer {&m_clock};
    QVariantMap m_first, m_second;
    QVariantList m_records;
};

TEST_F(TaskSwitchObserverTest, OffersTheFinishedSessionOnceAfterSettling)
{
    trackFirstThenSwitch(at(1.5).toMSecsSinceEpoch());
    EXPECT_TRUE(observeSecond(at(0)).isEmpty());
    EXPECT_EQ(m_observer.settlesAt(), at(2));
    EXPECT_TRUE(observeSecond(at(1)).isEmpty());
    EXPECT_EQ(m_observer.settling(), m_first);

    const QVariantMap offered = observeSecond(at(2));
    EXPECT_EQ(offered, m_first);
    EXPECT_TRUE(m_observer.settling().isEmpty());
    EXPECT_FALSE(m_observer.settlesAt().isValid());
    EXPECT_TRUE(observeSecond(at(3)).isEmpty());
}

// The user sets the clock back an hour just after the switch: the offer still comes two seconds later, and
// the caller is told to look again at the right moment of the new wall time.
TEST_F(TaskSwitchObserverTest, ClockSetBackDoesNotHoldBackTheOffer)
{
    trackFirstThenSwitch(at(1).toMSecsSinceEpoch());
    EXPECT_TRUE(observeSecond(at(0)).isEmpty());
    m_wallOffsetMs = 3'600'000;
    EXPECT_TRUE(observeSecond(at(-3600 + 1)).isEmpty());
    EXPECT_EQ(m_observer.settlesAt(), at(-3600 + 2));
    EXPECT_EQ(observeSecond(at(-3600 + 2)), m_first);
}

TEST_F(TaskSwitchObserverTest, StoppingAlsoOffersTheSession)
{
    trackFirstThenSwitch(at(0.5).toMSecsSinceEpoch());
    EXPECT_TRUE(observe({m_first}, false, true, QString(), 0, 0, at(0)).isEmpty());
    EXPECT_EQ(observe({m_first}, false, true, QString(), 0, 0, at(2.5)), m_first);
}

TEST_F(TaskSwitchObserverTest, KeepsWaitingWhileTheOldSessionIsStillOpenOrMissing)
{
    trackFirstThenSwitch(kBase.addSecs(-601).toMSecsSinceEpoch()); // end still below start
    EXPECT_TRUE(observeSecond(at(0)).isEmpty());
    EXPECT_TRUE(observeSecond(at(5)).isEmpty());
    EXPECT_TRUE(observeActive({m_second}, QStringLiteral("ENG-2"), kBase.toMSecsSinceEpoch(), at(6)).isEmpty());
    m_first[QStringLiteral("end_ms")] = at(1).toMSecsSinceEpoch();
    m_records = {m_second, m_first};
    EXPECT_EQ(observeSecond(at(7)), m_first);
}

TEST_F(TaskSwitchObserverTest, DropsSwitchesThatDoNotBelongToThisSession)
{
    // The tracker wrote the end just over two seconds after the switch.
    trackFirstThenSwitch(at(2.1).toMSecsSinceEpoch());
    EXPECT_TRUE(observeSecond(at(0)).isEmpty());
    EXPECT_TRUE(observeSecond(at(4)).isEmpty());
    EXPECT_TRUE(m_observer.settling().isEmpty());

    // The finished session was reassigned to another issue meanwhile.
    TaskSwitchObserver &observer = m_observer;
    observer = TaskSwitchObserver(&m_clock);
    trackFirstThenSwitch(at(1).toMSecsSinceEpoch());
    EXPECT_TRUE(observeSecond(at(0)).isEmpty());
    m_records = {m_second,
        session(
            1, QStringLiteral("OPS-9"), m_first[QStringLiteral("start_ms")].toLongLong(), at(1).toMSecsSinceEpoch())};
    EXPECT_TRUE(observeSecond(at(3)).isEmpty());
    EXPECT_FALSE(m_observer.settlesAt().isValid());

    // A switch first looked at more than a minute later is too old to prompt for.
    observer = TaskSwitchObserver(&m_clock);
    trackFirstThenSwitch(kBase.addSecs(-601).toMSecsSinceEpoch());
    EXPECT_TRUE(observeSecond(at(0)).isEmpty());
    m_first[QStringLiteral("end_ms")] = at(1).toMSecsSinceEpoch();
    m_records = {m_second, m_first};
    EXPECT_TRUE(observeSecond(at(61)).isEmpty());
    EXPECT_FALSE(m_observer.settlesAt().isValid());
}

TEST_F(TaskSwitchObserverTest, AnEarlierSessionOfTheSameIssueIsNotTakenForTheCurrentOne)
{
    // ENG-1 was tracked this morning; tracking on ENG-1 began again, but its record is not in the list yet.
    const qint64 morning = kBase.addSecs(-7200).toMSecsSinceEpoch();
    const QVariantMap earlier = session(7, QStringLiteral("ENG-1"), morning, morning + 600'000);
    const qint64 again = kBase.addSecs(-60).toMSecsSinceEpoch();
    EXPECT_TRUE(observeActive({earlier}, QStringLiteral("ENG-1"), again, at(-5)).isEmpty());

    m_second = session(2, QStringLiteral("ENG-2"), kBase.toMSecsSinceEpoch(), 0);
    EXPECT_TRUE(observeSecond(at(0)).isEmpty());
    m_records = {m_second, earlier};
    EXPECT_TRUE(observeSecond(at(1)).isEmpty());
    EXPECT_TRUE(m_observer.settling().isEmpty());
    EXPECT_TRUE(observeSecond(at(3)).isEmpty()) << "the morning's session has nothing to do with this switch";
}

TEST_F(TaskSwitchObserverTest, LosingTheLiveFlagClearsEverythingButTheOfferedSet)
{
    trackFirstThenSwitch(at(1).toMSecsSinceEpoch());
    EXPECT_TRUE(observeSecond(at(0)).isEmpty());
    EXPECT_TRUE(observeSecond(at(1.5)).isEmpty());
    ASSERT_FALSE(m_observer.settling().isEmpty());

    EXPECT_TRUE(observe(m_records, true, false, QStringLiteral("ENG-2"), 0, 42, at(1.8)).isEmpty());
    EXPECT_TRUE(m_observer.settling().isEmpty());
    EXPECT_FALSE(m_observer.settlesAt().isValid());
    // Live again on the same issue: there is no switch to finish.
    EXPECT_TRUE(observeSecond(at(3)).isEmpty());
    EXPECT_TRUE(observeSecond(at(10)).isEmpty());
}

TEST_F(TaskSwitchObserverTest, NeverOffersTheSameSessionTwiceUntilTheCapIsPassed)
{
    trackFirstThenSwitch(at(1).toMSecsSinceEpoch());
    observeSecond(at(0));
    ASSERT_EQ(observeSecond(at(2)), m_first);

    // The tracker reports the first session as current again and then switches away once more.
    const qint64 s1 = m_first[QStringLiteral("start_ms")].toLongLong();
    EXPECT_TRUE(observeActive(m_records, QStringLiteral("ENG-1"), s1, at(10)).isEmpty());
    EXPECT_TRUE(observeSecond(at(11)).isEmpty());
    EXPECT_TRUE(m_observer.settling().isEmpty()) << "an offered session is not settled again";
    EXPECT_TRUE(observeSecond(at(14)).isEmpty());

    // After 1001 other sessions were offered the set starts afresh.
    QDateTime now = at(100);
    for (qint64 id = 100; id < 1101; ++id) {
        const qint64 start = now.addSecs(-30).toMSecsSinceEpoch();
        QVariantMap open = session(id, QStringLiteral("ENG-1"), start, start - 1);
        ASSERT_TRUE(observeActive({open}, QStringLiteral("ENG-1"), start, now).isEmpty());
        open[QStringLiteral("end_ms")] = now.toMSecsSinceEpoch();
        ASSERT_TRUE(observe({open}, false, true, QString(), 0, 0, now).isEmpty());
        ASSERT_EQ(observe({open}, false, true, QString(), 0, 0, now.addSecs(2)), open);
        now = now.addSecs(10);
    }
    const QDateTime later = now.addSecs(100);
    QVariantMap reopened = m_first;
    reopened[QStringLiteral("end_ms")] = s1 - 1;
    EXPECT_TRUE(observeActive({reopened}, QStringLiteral("ENG-1"), s1, later).isEmpty());
    EXPECT_TRUE(observe({m_first}, false, true, QString(), 0, 0, later).isEmpty());
    m_first[QStringLiteral("end_ms")] = later.toMSecsSinceEpoch();
    EXPECT_EQ(observe({m_first}, false, true, QString(), 0, 0, later.addSecs(2)), m_first);
}

} // namespace
