#include "source/history.h"
#include "support/testenv.h"
#include "trackerfixture.h"

#include <QFile>

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <tuple>

using namespace trackertest;

namespace
{

tracker::Activity activity(const std::string &source, int64_t id, int64_t start, const std::string &description = "d")
{
    return {source, description, id, id * 10, 42, start, start + 60000, 60, start + 60001, 1};
}

auto fields(const tracker::Activity &a)
{
    return std::tuple(
        a.source, a.description, a.id, a.api_id, a.project, a.start_ms, a.end_ms, a.seconds, a.changed_ms, a.active);
}

// One number from the store, through a separate connection.
int64_t scalar(const std::string &path, const std::string &sql)
{
    sqlite3 *db = nullptr;
    sqlite3_stmt *statement = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    const int64_t value = sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : -1;
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return value;
}

std::string saveError(const std::string &path, const std::vector<tracker::Activity> &activities)
{
    try {
        tracker::saveActivities(path, activities);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "no error";
}

class HistoryStore : public ::testing::Test
{
protected:
    std::string m_path
        = QString(testenv::freshDir(QStringLiteral("store")) + QStringLiteral("/history.db")).toStdString();
};

} // namespace

TEST_F(HistoryStore, FirstSaveCreatesTheStoreThatReadersNeed)
{
    EXPECT_THROW(tracker::history(m_path), std::runtime_error);
    EXPECT_THROW(tracker::summaryHistory(m_path, 0), std::runtime_error);
    EXPECT_FALSE(QFile::exists(QString::fromStdString(m_path)));

    tracker::saveActivities(m_path, {});
    EXPECT_TRUE(tracker::history(m_path).empty());
    EXPECT_TRUE(tracker::summaryHistory(m_path, 0).empty());
    EXPECT_EQ(scalar(m_path, "SELECT count(*) FROM sqlite_master WHERE type='index' AND sql LIKE '%(start_ms)'"), 1);
    // Other versions of the program share this file: the table itself is never altered.
    EXPECT_EQ(scalar(m_path,
                  "SELECT count(*) FROM sqlite_master WHERE name='activities' AND sql='CREATE TABLE activities(source "
                  "TEXT,id INTEGER,api_id INTEGER,project INTEGER,start_ms INTEGER,end_ms INTEGER,description "
                  "TEXT,source_seconds INTEGER,source_active INTEGER,changed_ms INTEGER,PRIMARY KEY(source,id))'"),
        1);
}

TEST_F(HistoryStore, UpsertsByAccountAndIdKeepingTheLastValues)
{
    tracker::Activity odd {"1_activity", std::string("A\xff\0B", 4), 1, INT64_MIN, 0, 1000, 0, -1, INT64_MAX, -3};
    tracker::saveActivities(m_path, {odd, activity("1_activity", 2, 2000), activity("2_activity", 1, 3000)});
    // The same key twice in one save: the last values win.
    const auto renamed = activity("1_activity", 2, 2000, "renamed"), again = activity("1_activity", 2, 2000, "again");
    tracker::saveActivities(m_path, {renamed, again});

    auto stored = tracker::history(m_path);
    ASSERT_EQ(stored.size(), 3u);
    EXPECT_EQ(fields(stored[0]), fields(activity("2_activity", 1, 3000))); // same id, other account
    EXPECT_EQ(fields(stored[1]), fields(again));
    EXPECT_EQ(fields(stored[2]), fields(odd));

    // The stored value appearing first must not let the changed last one be skipped.
    tracker::saveActivities(m_path, {again, renamed});
    EXPECT_EQ(tracker::history(m_path)[1].description, "renamed");
}

TEST_F(HistoryStore, RepeatSaveRewritesOnlyTheChangedRow)
{
    std::vector<tracker::Activity> activities;
    for (int i = 0; i < 50; ++i)
        activities.push_back(activity(i % 2 ? "1_activity" : "2_activity", i, 1000 * i));
    tracker::saveActivities(m_path, activities);
    runSql(m_path,
        "CREATE TABLE writes(id INTEGER);"
        "CREATE TRIGGER count_updates AFTER UPDATE ON activities BEGIN INSERT INTO writes VALUES(new.id); END;");

    activities[17].end_ms += 5000;
    std::reverse(activities.begin(), activities.end()); // the order of the scan must not matter
    activities.push_back(activity("1_activity", 99, 99000));
    tracker::saveActivities(m_path, activities);

    EXPECT_EQ(scalar(m_path, "SELECT group_concat(id) FROM writes"), 17);
    EXPECT_EQ(scalar(m_path, "SELECT end_ms FROM activities WHERE id=17"), 17000 + 65000);
    EXPECT_EQ(scalar(m_path, "SELECT count(*) FROM activities"), 51);
}

TEST_F(HistoryStore, FailedSaveLosesNothingStored)
{
    // A store that rejects one row halfway through a save, through a constraint of its own.
    runSql(m_path,
        "CREATE TABLE activities(source TEXT,id INTEGER,api_id INTEGER,project INTEGER,start_ms INTEGER,end_ms "
        "INTEGER,description TEXT CHECK(description <> 'reject'),source_seconds INTEGER,source_active "
        "INTEGER,changed_ms INTEGER,PRIMARY KEY(source,id))");
    tracker::saveActivities(m_path, {activity("1_activity", 1, 1000, "kept")});

    EXPECT_EQ(saveError(m_path,
                  {activity("1_activity", 1, 1000, "changed"), activity("1_activity", 2, 2000),
                      activity("1_activity", 3, 3000, "reject")}),
        "CHECK constraint failed: description <> 'reject'");
    {
        SqliteChild other(QString::fromStdString(m_path), QStringLiteral("BEGIN IMMEDIATE; DELETE FROM activities;"));
        ASSERT_TRUE(other.ready());
        EXPECT_EQ(saveError(m_path, {activity("1_activity", 2, 2000)}), "database is locked");
    }

    const auto stored = tracker::history(m_path);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].description, "kept");
}

TEST_F(HistoryStore, ReadsNewestThousandAndIntervalsTouchingTheSinceTime)
{
    std::vector<tracker::Activity> activities;
    for (int i = 0; i < 1500; ++i)
        activities.push_back(activity("1_activity", i, (i * 7919 % 1500) * 1000LL)); // starts out of order
    tracker::saveActivities(m_path, activities);

    const auto newest = tracker::history(m_path);
    ASSERT_EQ(newest.size(), 1000u);
    EXPECT_EQ(newest.front().start_ms, 1499000);
    EXPECT_EQ(newest.back().start_ms, 500000);
    EXPECT_TRUE(
        std::is_sorted(newest.rbegin(), newest.rend(), [](auto &a, auto &b) { return a.start_ms < b.start_ms; }));

    // Starts are 0, 1000, ...; each interval lasts 60 s. Since 1440500: the one from 1381000 ends after it.
    auto triples = tracker::summaryHistory(m_path, 1440500);
    std::sort(triples.begin(), triples.end());
    ASSERT_EQ(triples.size(), 119u);
    EXPECT_EQ(triples.front(), (std::array<int64_t, 3> {42, 1381000, 1441000}));
    EXPECT_EQ(triples.back(), (std::array<int64_t, 3> {42, 1499000, 1559000}));
}
