#include "app/statusrules.h"

#include <QSettings>

#include <gtest/gtest.h>

namespace
{

const QDateTime kNow = QDateTime::fromSecsSinceEpoch(1'774'000'000);

struct Case {
    const char *name;
    StatusInput input;
    QString status;
    QString task;
    bool taskVisible;
    QString title;
    int intervalMs;
};

StatusInput state(int lastKind, bool live, const QString &description = {}, const QString &error = {},
    bool running = true, bool menuOpen = false)
{
    StatusInput input;
    input.hasMonitor = true;
    input.stintwatchRunning = running;
    input.error = error;
    input.lastKind = lastKind;
    input.liveObserved = live;
    input.started = kNow.addSecs(-(2 * 3600 + 5 * 60 + 7));
    input.currentDescription = description;
    input.now = kNow;
    input.menuOpen = menuOpen;
    return input;
}

const QString kNoTask = QStringLiteral("Start a Stintwatch task to observe its description.");

// Keeps the test names short: the case's name instead of its bytes.
void PrintTo(const Case &c, std::ostream *os)
{
    *os << c.name;
}

class StatusRules : public ::testing::TestWithParam<Case>
{
};

TEST_P(StatusRules, GiveTextsTitleAndInterval)
{
    const Case &c = GetParam();
    const StatusOutput out = HLStatusFor(c.input);
    EXPECT_EQ(out.status, c.status);
    EXPECT_EQ(out.task, c.task);
    EXPECT_EQ(out.taskVisible, c.taskVisible);
    EXPECT_EQ(out.title, c.title);
    EXPECT_EQ(out.intervalMs, c.intervalMs);
}

StatusInput noMonitor(bool menuOpen)
{
    StatusInput input;
    input.now = kNow;
    input.menuOpen = menuOpen;
    input.lastKind = 1; // state left over from a monitor must not leak through
    input.liveObserved = true;
    return input;
}

INSTANTIATE_TEST_SUITE_P(Table, StatusRules,
    ::testing::Values(Case {"NoFolder", noMonitor(true), QStringLiteral("Choose the Stintwatch folder"), QString(),
                          false, QString(), 15000},
        Case {"NotRunningWinsOverError", state(1, true, QStringLiteral("ED-1 Fix"), QStringLiteral("boom"), false),
            QStringLiteral("Stintwatch is not running"), QStringLiteral("ED-1: ED-1 Fix"), false, QString(), 15000},
        Case {"ErrorWinsOverTracking", state(1, true, QStringLiteral("ED-1 Fix"), QStringLiteral("boom")),
            QStringLiteral("Monitoring needs attention"), QStringLiteral("ED-1: ED-1 Fix"), true,
            QStringLiteral("Tracking ED-1"), 15000},
        Case {"TrackingLiveAssigned", state(1, true, QStringLiteral("ED-1 Fix the login")),
            QStringLiteral("Tracking · 2h 5m"), QStringLiteral("ED-1: ED-1 Fix the login"), true,
            QStringLiteral("Tracking ED-1"), 15000},
        Case {"TrackingLiveMenuOpenTicksEverySecond", state(1, true, QStringLiteral("Meeting"), {}, true, true),
            QStringLiteral("Tracking · 2h 5m"), QStringLiteral("Unassigned: Meeting"), true, QStringLiteral("Tracking"),
            1000},
        Case {"TrackingWithoutDescription", state(1, true), QStringLiteral("Tracking · 2h 5m"), kNoTask, true,
            QStringLiteral("Tracking"), 15000},
        Case {"TrackingNotConfirmedMenuOpen", state(1, false, QStringLiteral("ED-2 Review"), {}, true, true),
            QStringLiteral("Last reported: tracking · confirming it is still running"),
            QStringLiteral("ED-2: ED-2 Review"), false, QString(), 15000},
        Case {"Stopped", state(2, true, QStringLiteral("ED-2 Review"), {}, true, true),
            QStringLiteral("Stopped — last reported by Stintwatch"), QStringLiteral("ED-2: ED-2 Review"), false,
            QString(), 15000},
        Case {"NothingYet", state(0, false), QStringLiteral("Waiting for Stintwatch activity"), kNoTask, false,
            QString(), 15000}),
    [](const ::testing::TestParamInfo<Case> &param) { return std::string(param.param.name); });

TEST(StatusRules, ElapsedTimeIsTheDurationTextAndNeverNegative)
{
    StatusInput input = state(1, true, QStringLiteral("ED-1 Fix"));
    input.started = kNow.addSecs(-59);
    EXPECT_EQ(HLStatusFor(input).status, QStringLiteral("Tracking · 0m"));
    // A start a little ahead of this machine's clock reads as just started.
    input.started = kNow.addSecs(30);
    EXPECT_EQ(HLStatusFor(input).status, QStringLiteral("Tracking · 0m"));
}

TEST(StatusRules, SessionCountSaysHowManyShortSessionsAreHidden)
{
    StatusInput input = state(0, false);
    input.sessionCount = 12;
    input.shortSessionCount = 3;
    EXPECT_EQ(HLStatusFor(input).sessionCount, QStringLiteral("12 captured sessions"));
    input.hideShortSessions = true;
    EXPECT_EQ(HLStatusFor(input).sessionCount, QStringLiteral("9 of 12 sessions · 3 under a minute hidden"));
    input.shortSessionCount = 0;
    EXPECT_EQ(HLStatusFor(input).sessionCount, QStringLiteral("12 captured sessions"));
}

QVariantMap row(qint64 project, qint64 start, qint64 end)
{
    return {{QStringLiteral("project"), project}, {QStringLiteral("start_ms"), start}, {QStringLiteral("end_ms"), end}};
}

TEST(SessionsMarkingRunning, EndsOnlyTheOpenIntervalOfTheRunningProjectNow)
{
    const qint64 now = kNow.toMSecsSinceEpoch();
    const QVariantList rows {row(7, now - 60'000, now - 120'000), // open, running project: ends now
        row(8, now - 60'000, now - 120'000), // open, another project: as it was
        row(7, now - 600'000, now - 300'000), // finished: as it was
        row(7, now + 60'000, 0)}; // starts after now: as it was
    const QVariantList marked = HLSessionsMarkingRunning(rows, 7, kNow);
    ASSERT_EQ(marked.size(), rows.size());
    EXPECT_EQ(marked[0].toMap().value(QStringLiteral("end_ms")).toLongLong(), now);
    for (int index = 1; index < rows.size(); ++index)
        EXPECT_EQ(marked[index], rows[index]) << index;
    EXPECT_EQ(HLShortSessionCount({row(1, 0, 59'999), row(1, 0, 60'000), row(1, 10, 0)}), 1);
}

} // namespace
