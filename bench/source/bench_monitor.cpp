// Measures what the live monitor costs: a scan after the tracker changed one activity against the bare read
// of the tracker's database, and a stretch of real time with the tracker writing heartbeats (CPU seconds,
// scans, reads and resident memory of this process, the tracker running as a child process).

#include "simtracker.h"
#include "source/history.h"
#include "source/stintwatchmonitor.h"
#include "source/trackerdb.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <sys/resource.h>
#include <unistd.h>

#include <memory>

namespace
{

struct Folder {
    QTemporaryDir root;
    QString tracker() const { return root.path() + QStringLiteral("/tracker"); }
    QString store() const { return root.path() + QStringLiteral("/store"); }
};

// One tracker folder per size, built once: `count` finished activities and one open one.
Folder &trackerWith(int count)
{
    static std::map<int, std::unique_ptr<Folder>> folders;
    auto &slot = folders[count];
    if (!slot) {
        slot = std::make_unique<Folder>();
        QDir().mkpath(slot->store());
        SimTracker sim(slot->tracker());
        sim.create();
        sim.generateHistory(count, 3);
        sim.start(42, QStringLiteral("ENG-1 Benchmark"));
    }
    return *slot;
}

void waitForScan(StintwatchMonitor &monitor, int count)
{
    if (monitor.scanCount() >= count)
        return;
    QEventLoop loop;
    QObject::connect(&monitor, &StintwatchMonitor::changed, &loop, [&] {
        if (monitor.scanCount() >= count)
            loop.quit();
    });
    loop.exec();
}

double cpuSeconds()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
        + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

double peakResidentMiB()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0;
}

double residentMiB()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? double(fields[1].toLongLong()) * double(sysconf(_SC_PAGESIZE)) / 1048576.0 : 0;
}

void BM_BareTrackerRead(benchmark::State &state)
{
    const std::string path
        = QFile::encodeName(trackerWith(int(state.range(0))).tracker() + QStringLiteral("/Stintwatch.db"))
              .toStdString();
    for (auto _ : state)
        benchmark::DoNotOptimize(tracker::readActivities(path));
}
BENCHMARK(BM_BareTrackerRead)->Arg(100'000)->Unit(benchmark::kMillisecond);

void BM_ScanAfterOneChange(benchmark::State &state)
{
    Folder &folder = trackerWith(int(state.range(0)));
    QFile::remove(folder.store() + QStringLiteral("/history.db"));
    SimTracker sim(folder.tracker());
    StintwatchMonitor monitor(folder.tracker(), folder.store());
    monitor.setRunningCheck([] { return true; });
    monitor.scan(true);
    waitForScan(monitor, 1);
    for (auto _ : state) {
        state.PauseTiming();
        sim.heartbeat();
        const int next = monitor.scanCount() + 1;
        state.ResumeTiming();
        monitor.scan(false);
        waitForScan(monitor, next);
    }
    if (!monitor.error().isEmpty())
        state.SkipWithError(qPrintable(monitor.error()));
    state.counters["rows"] = double(monitor.rows().size());
}
BENCHMARK(BM_ScanAfterOneChange)->Arg(100'000)->Unit(benchmark::kMillisecond);

// The share of a scan that is the history store's upsert of the one changed activity.
void BM_SaveOneOfManyActivities(benchmark::State &state)
{
    Folder &folder = trackerWith(int(state.range(0)));
    const std::string tracker = QFile::encodeName(folder.tracker() + QStringLiteral("/Stintwatch.db")).toStdString();
    const std::string store = QFile::encodeName(folder.store() + QStringLiteral("/saved.db")).toStdString();
    std::vector<tracker::Activity> activities = tracker::readActivities(tracker);
    tracker::saveActivities(store, activities);
    std::vector<tracker::Activity> one {activities.back()};
    for (auto _ : state) {
        ++one.front().changed_ms;
        tracker::saveActivities(store, one);
    }
}
BENCHMARK(BM_SaveOneOfManyActivities)->Arg(100'000)->Unit(benchmark::kMillisecond);

// Real time: the tracker (a child process) writes a heartbeat every 10 s over a 10,000-activity database
// while the monitor runs with its watchers and 15 s tick. HOURLOOM_BENCH_IDLE_SECONDS sets the length
// (600 for the ten minutes quoted in the README; 30 by default so a benchmark run stays short).
void BM_IdleWithHeartbeats(benchmark::State &state)
{
    const int seconds = qEnvironmentVariableIsSet("HOURLOOM_BENCH_IDLE_SECONDS")
        ? qEnvironmentVariableIntValue("HOURLOOM_BENCH_IDLE_SECONDS")
        : 30;
    Folder &folder = trackerWith(10'000);
    for (auto _ : state) {
        QFile::remove(folder.store() + QStringLiteral("/history.db"));
        StintwatchMonitor monitor(folder.tracker(), folder.store());
        monitor.setRunningCheck([] { return true; });
        monitor.start();
        waitForScan(monitor, 1);
        const double residentStart = residentMiB();
        const double peakStart = peakResidentMiB();
        const double cpuStart = cpuSeconds();
        const int scansStart = monitor.scanCount();
        const int sourceStart = monitor.sourceReads();
        const int storeStart = monitor.storeReads();

        QProcess tracker;
        tracker.start(QStringLiteral(HOURLOOM_SIMTRACKER),
            {QStringLiteral("--folder"), folder.tracker(), QStringLiteral("run"), QString::number(seconds),
                QStringLiteral("10")});
        tracker.waitForStarted();
        QEventLoop loop;
        QTimer::singleShot(seconds * 1000 + 500, &loop, &QEventLoop::quit);
        loop.exec();
        tracker.waitForFinished();

        state.counters["cpu_s"] = cpuSeconds() - cpuStart;
        state.counters["scans"] = monitor.scanCount() - scansStart;
        state.counters["source_reads"] = monitor.sourceReads() - sourceStart;
        state.counters["store_reads"] = monitor.storeReads() - storeStart;
        state.counters["rss_start_MiB"] = residentStart;
        state.counters["rss_end_MiB"] = residentMiB();
        state.counters["peak_start_MiB"] = peakStart;
        state.counters["peak_end_MiB"] = peakResidentMiB();
        state.counters["seconds"] = seconds;
    }
}
BENCHMARK(BM_IdleWithHeartbeats)->Iterations(1)->Unit(benchmark::kSecond);

} // namespace
