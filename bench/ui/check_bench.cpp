// "Check Jira" on a heavy day in the Worklogs window, against the local HTTPS stand-in: 200 sessions on 20
// issues, each issue holding 500 worklogs of that day. The figure is the longest stretch the main thread
// works without returning to its event loop, in thread CPU time (so a loaded machine does not inflate it)
// and in wall time. Floor, in the same run: the same check of a day with one session on one issue, whose
// main-thread work is the fixed cost of an operation.

#include "app/ui/jirareviewwindowcontroller.h"
#include "jira/jiraclient.h"
#include "standin/server.h"
#include "support/standinsite.h"
#include "worklogs/engine.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QTemporaryDir>
#include <QThread>

#include <benchmark/benchmark.h>

#include <ctime>
#include <memory>

namespace
{

using bench::kAccount;
using bench::kCloud;
using bench::kColleague;
const QDate kDay(2026, 3, 4);
constexpr int kIssues = 20;
constexpr int kDrafts = 200;
constexpr int kWorklogsPerIssue = 500;

double clockMs(clockid_t clock)
{
    timespec now {};
    clock_gettime(clock, &now);
    return double(now.tv_sec) * 1000.0 + double(now.tv_nsec) / 1.0e6;
}

// The main thread's work between two returns to its event loop. Every wake and every wait of the loop ends a
// stretch; the thread CPU clock does not advance while the thread sleeps, so a stretch that spans a wait
// counts only the work around it.
class LoopMeter : public QObject
{
public:
    LoopMeter()
    {
        QAbstractEventDispatcher *dispatcher = QAbstractEventDispatcher::instance(QThread::currentThread());
        connect(dispatcher, &QAbstractEventDispatcher::awake, this, &LoopMeter::mark);
        connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this, &LoopMeter::mark);
        reset();
    }

    void reset()
    {
        longestCpu = longestWall = 0;
        over16 = 0;
        lastCpu = clockMs(CLOCK_THREAD_CPUTIME_ID);
        lastWall = clockMs(CLOCK_MONOTONIC);
    }

    void mark()
    {
        const double cpu = clockMs(CLOCK_THREAD_CPUTIME_ID), wall = clockMs(CLOCK_MONOTONIC);
        const double stretch = cpu - lastCpu;
        if (stretch > 16.0)
            ++over16;
        if (stretch > longestCpu) {
            longestCpu = stretch;
            longestWall = wall - lastWall;
        }
        lastCpu = cpu;
        lastWall = wall;
    }

    double longestCpu = 0, longestWall = 0;
    int over16 = 0;

private:
    double lastCpu = 0, lastWall = 0;
};

QVariantMap session(const QString &issue, const QDateTime &start, qint64 seconds, qint64 id)
{
    const qint64 startMs = start.toMSecsSinceEpoch();
    return {{QStringLiteral("date"), start.date().toString(Qt::ISODate)}, {QStringLiteral("issue"), issue},
        {QStringLiteral("description"), QString(issue + QStringLiteral(" Task %1").arg(id % 40))},
        {QStringLiteral("duration"), seconds}, {QStringLiteral("start_ms"), startMs},
        {QStringLiteral("end_ms"), startMs + seconds * 1000}, {QStringLiteral("local_id"), id},
        {QStringLiteral("api_id"), 0}, {QStringLiteral("project"), 1}, {QStringLiteral("source_seconds"), seconds},
        {QStringLiteral("source_account"), QStringLiteral("acct")}, {QStringLiteral("source_running"), false}};
}

// A day of `count` back-to-back sessions of three to six minutes over `issues` issues.
QVariantList day(int count, int issues)
{
    QVariantList sessions;
    QDateTime start(kDay, QTime(6, 0));
    for (int i = 0; i < count; ++i) {
        const qint64 seconds = 180 + (i * 37) % 180;
        sessions.append(session(QStringLiteral("HVY-%1").arg(i % issues + 1), start, seconds, i + 1));
        start = start.addSecs(seconds + 30);
    }
    return sessions;
}

// The stand-in with the issues and their worklogs, and a window signed in to it with the site chosen.
struct CheckEnvironment {
    QTemporaryDir support;
    standin::Server server;
    std::unique_ptr<JiraReviewWindowController> controller;

    CheckEnvironment()
    {
        const QStringList scopes = bench::siteScopes();
        bench::addSite(server);
        for (int i = 0; i < kIssues; ++i) {
            const QString key = QStringLiteral("HVY-%1").arg(i + 1);
            server.addIssue({key, {}, QStringLiteral("Heavy issue ") + key, {}, {}});
            for (int w = 0; w < kWorklogsPerIssue; ++w)
                server.addWorklog(
                    {key, w % 10 == 0 ? kAccount : kColleague, QDateTime(kDay, QTime(0, 0)).addSecs(120 * w), 60,
                        standin::commentDocument(QStringLiteral("Earlier work %1").arg(w)), {}, {}, {}});
        }
        if (!server.start())
            qFatal("the stand-in did not start: %s", qPrintable(server.errorString()));
        qputenv("HOURLOOM_TEST_GATEWAY", server.origin().toUtf8());
        qputenv("HOURLOOM_TEST_CA_FILE", server.caFile().toUtf8());
        const QString token = server.issueAccessToken(kAccount, scopes, 24 * 3600);
        controller = std::make_unique<JiraReviewWindowController>(support.path());
        JiraClient &client = controller->jiraClient();
        client.queue().sync([&] {
            client.session().save(
                {{QStringLiteral("access_token"), token}, {QStringLiteral("refresh_token"), QStringLiteral("unused")},
                    {QStringLiteral("expires_in"), 86400}, {QStringLiteral("broker"), server.origin()},
                    {QStringLiteral("expires_at"), double(QDateTime::currentSecsSinceEpoch() + 86400)}});
        });
        controller->setReviewDay(kDay);
        controller->prepareConnection();
        QDeadlineTimer limit(60'000);
        while (controller->selectedCloud() != kCloud && !limit.hasExpired())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
        if (controller->selectedCloud() != kCloud)
            qFatal("the site was never chosen: %s", qPrintable(controller->statusText()));
    }

    // One "Check Jira" from the click to the last row updated.
    void check()
    {
        controller->checkJira();
        if (!controller->busy())
            qFatal("the check did not start: %s", qPrintable(controller->statusText()));
        while (controller->busy())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        if (!controller->statusText().startsWith(QStringLiteral("Checked"))
            && !controller->statusText().contains(QStringLiteral("unticked")))
            qFatal("the check failed: %s", qPrintable(controller->statusText()));
    }
};

void runCheck(benchmark::State &state, int drafts, int issues)
{
    // The sign-in lives in the secret store; without a session bus there is none.
    if (qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")) {
        state.SkipWithError("needs a secret store: run it through scripts/with-keyring.sh");
        return;
    }
    CheckEnvironment environment;
    environment.controller->showSessions(day(drafts, issues));
    environment.check(); // warm: the titles and the comparison cache exist, as on a second check
    LoopMeter meter;
    double longestCpu = 0, longestWall = 0;
    int over16 = 0;
    for (auto _ : state) {
        meter.reset();
        environment.check();
        meter.mark();
        longestCpu = std::max(longestCpu, meter.longestCpu);
        longestWall = std::max(longestWall, meter.longestWall);
        over16 += meter.over16;
    }
    state.counters["rows"] = double(drafts);
    state.counters["longest_cpu_ms"] = longestCpu;
    state.counters["longest_wall_ms"] = longestWall;
    state.counters["stretches_over_16ms"] = double(over16) / double(state.iterations());
}

void BM_CheckHeavyDay(benchmark::State &state)
{
    runCheck(state, kDrafts, kIssues);
}
BENCHMARK(BM_CheckHeavyDay)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

// Floor: the same check of one session on one issue.
void BM_CheckHeavyDayFloor(benchmark::State &state)
{
    runCheck(state, 1, 1);
}
BENCHMARK(BM_CheckHeavyDayFloor)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

} // namespace
