// Figures for the tracker reader, the history store and the log parser. Run with
// --benchmark_repetitions=5 --benchmark_report_aggregates_only=true --benchmark_enable_random_interleaving=true
// and compare medians within one run: the reader at 100k is meant to stay within 1.1x of ReadTrackerBare (the
// same snapshot read through SQLite's C API alone), the repeat save within 1.5x of it, and the monitor's read
// between full reads (ReadTrackerPartial) well below it.

#include "barefloor.h"
#include "source/history.h"
#include "source/logparser.h"
#include "source/trackerdb.h"

#include <benchmark/benchmark.h>

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

void exec(sqlite3 *db, const std::string &sql)
{
    char *error = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        std::string message = error ? error : "SQL error";
        sqlite3_free(error);
        throw std::runtime_error(message);
    }
}

// Never destroyed, so the clean-up at exit can still use it.
const std::filesystem::path &workDir()
{
    static const auto *dir = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "hourloom-bench-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            throw std::runtime_error("cannot create a temporary folder");
        return new std::filesystem::path(pattern);
    }();
    static const bool cleanup = std::atexit([] { std::filesystem::remove_all(*dir); }) == 0;
    (void)cleanup;
    return *dir;
}

// A tracker database in WAL mode with `count` activities spread over two accounts, built once per size.
std::string trackerWith(int64_t count)
{
    static std::map<int64_t, std::string> built;
    if (auto found = built.find(count); found != built.end())
        return found->second;
    const std::string path = (workDir() / ("tracker-" + std::to_string(count) + ".db")).string();
    sqlite3 *db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    exec(db, "PRAGMA journal_mode=WAL; BEGIN;");
    for (const char *table : {"\"41234_activity\"", "\"98765_activity\""})
        exec(db,
            std::string("CREATE TABLE ") + table
                + "(id INTEGER PRIMARY KEY, apiId INTEGER, projectId INTEGER, startTime INTEGER, endTime INTEGER, "
                  "description TEXT, seconds INTEGER, active INTEGER, lastChanged INTEGER)");
    sqlite3_stmt *insert[2] = {};
    sqlite3_prepare_v2(db, "INSERT INTO \"41234_activity\" VALUES(?,?,?,?,?,?,?,?,?)", -1, &insert[0], nullptr);
    sqlite3_prepare_v2(db, "INSERT INTO \"98765_activity\" VALUES(?,?,?,?,?,?,?,?,?)", -1, &insert[1], nullptr);
    const int64_t base = 1735689600000; // 2025-01-01
    for (int64_t i = 0; i < count; ++i) {
        sqlite3_stmt *s = insert[i % 5 == 0 ? 1 : 0];
        const int64_t start = base + i * 1800000;
        const std::string description
            = "ENG-" + std::to_string(100 + i % 900) + " review of the import pipeline, part " + std::to_string(i);
        sqlite3_reset(s);
        sqlite3_bind_int64(s, 1, i + 1);
        sqlite3_bind_int64(s, 2, 5000000 + i);
        sqlite3_bind_int64(s, 3, 100 + i % 17);
        sqlite3_bind_int64(s, 4, start);
        sqlite3_bind_int64(s, 5, start + 1500000);
        sqlite3_bind_text(s, 6, description.data(), static_cast<int>(description.size()), SQLITE_TRANSIENT);
        sqlite3_bind_int64(s, 7, 1500);
        sqlite3_bind_int(s, 8, 1);
        sqlite3_bind_int64(s, 9, start + 1500500);
        sqlite3_step(s);
    }
    sqlite3_finalize(insert[0]);
    sqlite3_finalize(insert[1]);
    exec(db, "COMMIT; PRAGMA wal_checkpoint(TRUNCATE);");
    sqlite3_close(db);
    built[count] = path;
    return path;
}

std::string freshStore(const std::string &name)
{
    const std::filesystem::path path = workDir() / name;
    std::filesystem::remove(path);
    return path.string();
}

void ReadTracker(benchmark::State &state)
{
    const std::string path = trackerWith(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(tracker::readActivities(path));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void ReadTrackerBare(benchmark::State &state)
{
    const std::string path = trackerWith(state.range(0));
    for (auto _ : state)
        benchmark::DoNotOptimize(bareTrackerRead(path));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// What the live monitor reads between full reads once one activity changed: per account table the rows stamped
// since the newest change less ten minutes, those above the highest id and the one a heartbeat names, each
// looked at through a view without a record built.
void ReadTrackerPartial(benchmark::State &state)
{
    const std::string path = trackerWith(state.range(0));
    std::vector<std::pair<int64_t, int64_t>> newest; // per table: newest change, highest id
    {
        tracker::ActivityReader reader(path);
        for (size_t t = 0; t < reader.tables().size(); ++t) {
            std::pair<int64_t, int64_t> seen {INT64_MIN, INT64_MIN};
            for (tracker::ActivityRows rows(reader, t); rows.next();)
                seen = {std::max(seen.first, rows.view().changed_ms), std::max(seen.second, rows.view().id)};
            newest.push_back(seen);
        }
    }
    int64_t visited = 0;
    size_t checksum = 0;
    for (auto _ : state) {
        tracker::ActivityReader reader(path);
        for (size_t t = 0; t < reader.tables().size(); ++t) {
            const tracker::RowFilter filter {newest[t].first - 600'000, newest[t].second, {state.range(0) / 2}};
            for (tracker::ActivityRows rows(reader, t, &filter); rows.next(); ++visited)
                checksum += std::hash<std::string_view>()(rows.view().description);
        }
    }
    benchmark::DoNotOptimize(checksum);
    state.counters["rows_per_read"] = double(visited) / double(std::max<int64_t>(1, state.iterations()));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void FirstSave(benchmark::State &state)
{
    const auto activities = tracker::readActivities(trackerWith(state.range(0)));
    const std::string store = (workDir() / "first-save.db").string();
    for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::remove(store);
        state.ResumeTiming();
        tracker::saveActivities(store, activities);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The steady state of the monitor: the tracker extended one activity since the last scan.
void RepeatSaveOneChanged(benchmark::State &state)
{
    auto activities = tracker::readActivities(trackerWith(state.range(0)));
    const std::string store = freshStore("repeat-save.db");
    tracker::saveActivities(store, activities);
    tracker::Activity &changed = activities[activities.size() / 2];
    for (auto _ : state) {
        changed.end_ms += 1000;
        tracker::saveActivities(store, activities);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void History(benchmark::State &state)
{
    const std::string store = freshStore("history.db");
    tracker::saveActivities(store, tracker::readActivities(trackerWith(state.range(0))));
    for (auto _ : state)
        benchmark::DoNotOptimize(tracker::history(store));
}

// The same read on a store without the start_ms index, for comparison.
void HistoryWithoutIndex(benchmark::State &state)
{
    const std::string store = freshStore("history-no-index.db");
    tracker::saveActivities(store, tracker::readActivities(trackerWith(state.range(0))));
    sqlite3 *db = nullptr;
    sqlite3_open_v2(store.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
    exec(db, "DROP INDEX activities_start_ms");
    sqlite3_close(db);
    for (auto _ : state)
        benchmark::DoNotOptimize(tracker::history(store));
}

// About 1 MiB of the tracker's log: mostly chatter, with the event lines at the rate a tracked day gives.
std::vector<std::string> logLines()
{
    std::vector<std::string> lines;
    size_t bytes = 0;
    for (int i = 0; bytes < 1024 * 1024; ++i) {
        char stamp[64];
        std::snprintf(stamp, sizeof stamp, "[2026-03-%02d %02d:%02d:%02d.%03d]", 1 + i / 2000 % 28, i / 120 % 24,
            i / 2 % 60, i % 60, i * 37 % 1000);
        std::string line = stamp;
        switch (i % 10) {
        case 0:
            line += " [Thread 7] [Info] Service timeout, updating activity end time (id: " + std::to_string(90000 + i)
                + ")";
            break;
        case 1:
            line += " [Thread 3] [Debug] HTTP GET https://api.example.invalid/v1/activities?since=" + std::to_string(i)
                + " finished with status 200 in 184 ms";
            break;
        case 2:
            line += " [Thread 3] [Info] Synchronising 14 activities with the server";
            break;
        case 3:
            line += i % 30 == 3 ? " [Thread 1] [Info] Tracking started (project id: " + std::to_string(i % 17) + ")"
                                : " [Thread 1] [Info] Tracking stopped (project id: " + std::to_string(i % 17) + ")";
            break;
        case 4:
            line += " [Thread 1] [Info] Adding activity description \"ENG-" + std::to_string(i % 900)
                + " review \\\"import\\\" pipeline\" for project " + std::to_string(i % 17) + " to storage";
            break;
        case 5:
            line += " [Thread 9] [Warning] Idle detection: no input for 300 seconds";
            break;
        default:
            line += " [Thread 4] [Debug] Window focus changed to \"Terminal\" (pid 4242), screenshot skipped";
            break;
        }
        bytes += line.size() + 1;
        lines.push_back(std::move(line));
    }
    return lines;
}

void ParseLog(benchmark::State &state)
{
    const std::vector<std::string> lines = logLines();
    size_t bytes = 0;
    for (const std::string &line : lines)
        bytes += line.size() + 1;
    for (auto _ : state) {
        int events = 0;
        for (const std::string &line : lines)
            events += tracker::parseEvent(line).kind != 0;
        benchmark::DoNotOptimize(events);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void IssueInDescriptions(benchmark::State &state)
{
    std::vector<std::string> descriptions;
    for (int i = 0; i < 1000; ++i)
        descriptions.push_back(i % 3 ? "Weekly planning with the team, notes in the wiki"
                                     : "eng-" + std::to_string(i) + " fix the import of overlapping sessions");
    for (auto _ : state) {
        for (const std::string &text : descriptions)
            benchmark::DoNotOptimize(tracker::issue(text));
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(descriptions.size()));
}

} // namespace

BENCHMARK(ReadTracker)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(ReadTrackerBare)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(ReadTrackerPartial)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(FirstSave)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(RepeatSaveOneChanged)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(History)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(HistoryWithoutIndex)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(ParseLog)->Unit(benchmark::kMillisecond);
BENCHMARK(IssueInDescriptions)->Unit(benchmark::kMicrosecond);
