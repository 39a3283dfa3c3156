// Measures what the live monitor costs: a scan after the tracker changed one activity against the bare read
// of the tracker's database, the first scan over a log full of heartbeats against one full of noise, the
// memory a huge log append costs, and a stretch of real time with the tracker writing heartbeats (CPU
// seconds, scans, reads and resident memory of this process, the tracker running as a child process).

#include "barefloor.h"
#include "simtracker.h"
#include "source/history.h"
#include "source/logreader.h"
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

// Resets the peak resident size of this process (VmHWM) and reads it back, in MiB.
void resetPeakResident()
{
    QFile refs(QStringLiteral("/proc/self/clear_refs"));
    if (refs.open(QIODevice::WriteOnly))
        refs.write("5");
}

double peakSinceResetMiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
    }
    return 0;
}

void BM_BareTrackerRead(benchmark::State &state)
{
    const std::string path
        = QFile::encodeName(trackerWith(int(state.range(0))).tracker() + QStringLiteral("/Stintwatch.db"))
              .toStdString();
    for (auto _ : state)
        benchmark::DoNotOptimize(bareTrackerRead(path));
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
    double cpu = 0;
    for (auto _ : state) {
        state.PauseTiming();
        sim.heartbeat();
        const int next = monitor.scanCount() + 1;
        const double cpuStart = cpuSeconds();
        state.ResumeTiming();
        monitor.scan(false);
        waitForScan(monitor, next);
        cpu += cpuSeconds() - cpuStart;
    }
    // CPU seconds of both threads per scan: steadier than wall time on a busy machine.
    state.counters["cpu_ms"] = benchmark::Counter(cpu * 1000, benchmark::Counter::kAvgIterations);
    if (!monitor.error().isEmpty())
        state.SkipWithError(qPrintable(monitor.error()));
    state.counters["rows"] = double(monitor.rows().size());
}
BENCHMARK(BM_ScanAfterOneChange)->Arg(100'000)->Unit(benchmark::kMillisecond);

// The monitor's first scan of a tracker with `count` activities into an empty store: the growth of this
// process's peak resident memory during the scan, against the resident memory before it.
void BM_FirstScanPeakMemory(benchmark::State &state)
{
    Folder &folder = trackerWith(int(state.range(0)));
    for (auto _ : state) {
        QFile::remove(folder.store() + QStringLiteral("/history.db"));
        StintwatchMonitor monitor(folder.tracker(), folder.store());
        monitor.setRunningCheck([] { return true; });
        const double before = residentMiB();
        const double cpuStart = cpuSeconds();
        resetPeakResident();
        monitor.scan(true);
        waitForScan(monitor, 1);
        state.counters["cpu_ms"] = (cpuSeconds() - cpuStart) * 1000;
        state.counters["rss_before_MiB"] = before;
        state.counters["peak_during_MiB"] = peakSinceResetMiB();
        state.counters["rows"] = double(monitor.rows().size());
        if (!monitor.error().isEmpty())
            state.SkipWithError(qPrintable(monitor.error()));
    }
}

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

// Lines as the tracker writes them, `bytes` in all: service heartbeats for random activities of a
// `count`-activity database, or lines the monitor reads past.
QByteArray logLines(qint64 bytes, bool heartbeats, int count, const QByteArray &timestamp)
{
    static const char *const kNoise[] = {"[Debug] Sync queue drained (0 pending)",
        "[Info] Fetched 3 projects from server", "[Info] Idle detector armed (threshold 300 s)",
        "[Error] Service timeout, updating activity end time (id: 1) failed: offline"};
    QByteArray out;
    out.reserve(bytes + 256);
    for (int i = 0; out.size() < bytes; ++i) {
        out += '[' + timestamp + "] [1a2c] ";
        if (heartbeats)
            out += "[Info] Service timeout, updating activity end time (id: "
                + QByteArray::number(1 + (i * 7919) % count) + ')';
        else
            out += kNoise[i % std::size(kNoise)];
        out += '\n';
    }
    return out;
}

// The first scan reads the last MiB of the log. Arg 1: a MiB of heartbeats (about 12,000, each naming one of
// the 100,000 activities); arg 0: a MiB of noise, the floor. Each iteration starts from an empty store.
void BM_FirstScanOverLog(benchmark::State &state)
{
    const bool heartbeats = state.range(1) != 0;
    const int count = int(state.range(0));
    static std::map<std::pair<int, bool>, std::unique_ptr<Folder>> folders;
    auto &slot = folders[{count, heartbeats}];
    if (!slot) {
        slot = std::make_unique<Folder>();
        QDir().mkpath(slot->store());
        SimTracker sim(slot->tracker());
        sim.create();
        sim.generateHistory(count, 3);
        // Tracking runs: its start lies inside the last MiB, so every heartbeat after it is looked at.
        sim.appendLog(logLines(256 * 1024, false, count, sim.timestamp()));
        sim.start(42, QStringLiteral("ENG-1 Benchmark"));
        sim.appendLog(logLines(LogReader::kWindow - 64 * 1024, heartbeats, count, sim.timestamp()));
    }
    double cpu = 0;
    for (auto _ : state) {
        state.PauseTiming();
        QFile::remove(slot->store() + QStringLiteral("/history.db"));
        auto monitor = std::make_unique<StintwatchMonitor>(slot->tracker(), slot->store());
        monitor->setRunningCheck([] { return true; });
        const double cpuStart = cpuSeconds();
        state.ResumeTiming();
        monitor->scan(true);
        waitForScan(*monitor, 1);
        state.PauseTiming();
        cpu += cpuSeconds() - cpuStart;
        if (!monitor->error().isEmpty())
            state.SkipWithError(qPrintable(monitor->error()));
        monitor.reset();
        state.ResumeTiming();
    }
    // CPU seconds of both threads per scan: steadier than wall time on a busy machine.
    state.counters["cpu_ms"] = benchmark::Counter(cpu * 1000, benchmark::Counter::kAvgIterations);
    state.counters["heartbeat_lines"]
        = heartbeats ? double(logLines(LogReader::kWindow - 64 * 1024, true, count, "x").count('\n')) : 0;
}
BENCHMARK(BM_FirstScanOverLog)->Args({100'000, 0})->Args({100'000, 1})->Unit(benchmark::kMillisecond);

// A 100 MiB append of noise read by one scan: the peak resident memory of this process during that scan,
// against the resident memory just before it (the floor).
void BM_LargeAppendPeakMemory(benchmark::State &state)
{
    const qint64 appended = state.range(0) * 1'048'576;
    for (auto _ : state) {
        Folder folder;
        QDir().mkpath(folder.store());
        SimTracker sim(folder.tracker());
        sim.create();
        sim.generateHistory(1000, 1);
        StintwatchMonitor monitor(folder.tracker(), folder.store());
        monitor.setRunningCheck([] { return true; });
        monitor.scan(true);
        waitForScan(monitor, 1);
        {
            const QByteArray block = logLines(1'048'576, false, 1000, sim.timestamp());
            QFile log(sim.logPath());
            log.open(QIODevice::Append);
            for (qint64 written = 0; written < appended; written += block.size())
                log.write(block);
        }
        const double before = residentMiB();
        resetPeakResident();
        monitor.scan(false);
        waitForScan(monitor, 2);
        state.counters["rss_before_MiB"] = before;
        state.counters["peak_during_MiB"] = peakSinceResetMiB();
        state.counters["appended_MiB"] = double(appended) / 1'048'576.0;
        if (!monitor.error().isEmpty())
            state.SkipWithError(qPrintable(monitor.error()));
    }
}
BENCHMARK(BM_LargeAppendPeakMemory)->Arg(100)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FirstScanPeakMemory)->Arg(100'000)->Iterations(1)->Unit(benchmark::kMillisecond);

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
