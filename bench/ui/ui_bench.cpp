// The Worklogs window with a heavy week: 1000 finished sessions over seven days on 23 issues, one of them
// still running. The window has no Jira site here, so every figure is the window's own work.

#include "app/ui/jirareviewwindowcontroller.h"
#include "app/ui/reviewmodel.h"
#include "platform/appidentity.h"
#include "support/benchprofile.h"
#include "worklogs/engine.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QMainWindow>
#include <QTemporaryDir>
#include <QTreeView>

#include <benchmark/benchmark.h>

namespace
{

const QDate kLast(2026, 3, 6);
constexpr int kRows = 1000;

QVariantMap session(
    const QString &issue, qint64 startMs, qint64 seconds, const QString &description, qint64 id, bool running = false)
{
    return {{QStringLiteral("date"), QDateTime::fromMSecsSinceEpoch(startMs).date().toString(Qt::ISODate)},
        {QStringLiteral("issue"), issue}, {QStringLiteral("description"), description},
        {QStringLiteral("duration"), seconds}, {QStringLiteral("start_ms"), startMs},
        {QStringLiteral("end_ms"), running ? qint64(-1) : startMs + seconds * 1000}, {QStringLiteral("local_id"), id},
        {QStringLiteral("api_id"), 0}, {QStringLiteral("project"), 1}, {QStringLiteral("source_seconds"), seconds},
        {QStringLiteral("source_account"), QStringLiteral("acct")}, {QStringLiteral("source_running"), running}};
}

QVariantList heavyWeek()
{
    QVariantList sessions;
    for (int i = 0; i < kRows; ++i) {
        const QDate day = kLast.addDays(-(i % 7));
        const qint64 start = QDateTime(day, QTime(6, 0)).toMSecsSinceEpoch() + qint64(i / 7) * 300'000;
        const QString issue = i % 17 == 0 ? QStringLiteral("Unassigned") : QStringLiteral("GEN-%1").arg(i % 23 + 1);
        sessions.append(
            session(issue, start, 120 + (i * 37) % 170, QStringLiteral("Task %1").arg(i % 40), i + 1, i == kRows - 7));
    }
    return sessions;
}

QVariantList drafts(const QVariantList &sessions)
{
    QVariantList rows;
    for (int i = 6; i >= 0; --i)
        rows.append(JRBuildDrafts(sessions, kLast.addDays(-i).startOfDay()));
    return rows;
}

qint64 peakRssKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong();
    return -1;
}

QString support()
{
    static QTemporaryDir dir;
    return dir.path();
}

// The rows of a 1000-row week put into an empty model (groups, spacers, index) and its reset.
void BM_ModelBuild(benchmark::State &state)
{
    const QVariantList rows = drafts(heavyWeek());
    for (auto _ : state) {
        ReviewModel model;
        model.setRows(rows);
        benchmark::DoNotOptimize(model.rowCount());
    }
    state.counters["rows"] = double(rows.size());
}
BENCHMARK(BM_ModelBuild)->Unit(benchmark::kMillisecond);

// Floor for the model build: copying the row list it is given.
void BM_ModelBuildFloor(benchmark::State &state)
{
    const QVariantList rows = drafts(heavyWeek());
    for (auto _ : state) {
        QVariantList copy;
        for (const QVariant &row : rows)
            copy.append(QVariant(row.toMap()));
        benchmark::DoNotOptimize(copy.size());
    }
}
BENCHMARK(BM_ModelBuildFloor)->Unit(benchmark::kMillisecond);

// Everything the window does for a 1000-row week from the sessions: assignments, drafts, rows, model.
void BM_WindowRowsFromSessions(benchmark::State &state)
{
    const QVariantList sessions = heavyWeek();
    JiraReviewWindowController controller(support());
    controller.setRange(kLast.addDays(-6), kLast);
    for (auto _ : state) {
        controller.showSessions({});
        controller.showSessions(sessions);
    }
}
BENCHMARK(BM_WindowRowsFromSessions)->Unit(benchmark::kMillisecond);

// The one-second live update of an open 1000-row window: the running session grew by a second.
void BM_LiveUpdate(benchmark::State &state)
{
    QVariantList sessions = heavyWeek();
    JiraReviewWindowController controller(support());
    controller.setRange(kLast.addDays(-6), kLast);
    controller.showSessions(sessions);
    qint64 seconds = 0;
    for (auto _ : state) {
        QVariantMap running = sessions[kRows - 7].toMap();
        running.insert(QStringLiteral("duration"), ++seconds);
        sessions[kRows - 7] = running;
        controller.updateSessions(sessions);
    }
}
BENCHMARK(BM_LiveUpdate)->Unit(benchmark::kMicrosecond);

// The same, when the tracker also moves the running session's end: its row, its group, the footer and the
// post button change.
void BM_LiveUpdateGrowingEnd(benchmark::State &state)
{
    QVariantList sessions = heavyWeek();
    QVariantMap running = sessions[kRows - 7].toMap();
    const qint64 start = running.value(QStringLiteral("start_ms")).toLongLong();
    running.insert(QStringLiteral("end_ms"), start + 60'000);
    sessions[kRows - 7] = running;
    JiraReviewWindowController controller(support());
    controller.setRange(kLast.addDays(-6), kLast);
    controller.showSessions(sessions);
    qint64 seconds = 60;
    for (auto _ : state) {
        running.insert(QStringLiteral("end_ms"), start + ++seconds * 1000);
        running.insert(QStringLiteral("duration"), seconds);
        sessions[kRows - 7] = running;
        controller.updateSessions(sessions);
    }
}
BENCHMARK(BM_LiveUpdateGrowingEnd)->Unit(benchmark::kMicrosecond);

// Floor for the live update: building the same week's drafts alone.
void BM_LiveUpdateFloor(benchmark::State &state)
{
    const QVariantList sessions = heavyWeek();
    for (auto _ : state)
        benchmark::DoNotOptimize(drafts(sessions).size());
}
BENCHMARK(BM_LiveUpdateFloor)->Unit(benchmark::kMicrosecond);

// First paint of the window with the week's rows (warm: the fonts and style are loaded by an earlier paint).
void BM_FirstPaint(benchmark::State &state)
{
    const QVariantList sessions = heavyWeek();
    {
        JiraReviewWindowController warm(support());
        warm.showSessions(sessions);
        warm.window()->grab();
    }
    for (auto _ : state) {
        JiraReviewWindowController controller(support());
        controller.setRange(kLast.addDays(-6), kLast);
        controller.showSessions(sessions);
        benchmark::DoNotOptimize(controller.window()->grab().width());
    }
    state.counters["peak_rss_MiB"] = double(peakRssKiB()) / 1024.0;
}
BENCHMARK(BM_FirstPaint)->Unit(benchmark::kMillisecond)->Iterations(10);

} // namespace

int main(int argc, char **argv)
{
    QTemporaryDir profile;
    if (!HLUseThrowAwayProfile(profile))
        return 1;
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    HLConfigureApplicationIdentity();
    JRSetAutoCompareOnOpen(false);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
