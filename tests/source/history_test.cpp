#include "source/history.h"
#include "support/testenv.h"
#include "trackerfixture.h"

#include <QFile>

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

using trackertest::runSql;

namespace
{

tracker::Activity activity(const std::string &source, int64_t id, int64_t start, const std::string &description = "d")
{
    tracker::Activity a;
    a.source = source;
    a.id = id;
    a.api_id = id * 10;
    a.project = 42;
    a.start_ms = start;
    a.end_ms = start + 60000;
    a.description = description;
    a.seconds = 60;
    a.active = 1;
    a.changed_ms = start + 60001;
    return a;
}

// One integer from the store, read through a separate connection.
int64_t scalar(const std::string &path, const std::string &sql)
{
    sqlite3 *db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    sqlite3_stmt *statement = nullptr;
    int64_t value = -1;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK
        && sqlite3_step(statement) == SQLITE_ROW)
        value = sqlite3_column_int64(statement, 0);
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

void expectSame(const tracker::Activity &a, const tracker::Activity &b)
{
    EXPECT_EQ(a.source, b.source);
    EXPECT_EQ(a.description, b.description);
    EXPECT_EQ(a.id, b.id);
    EXPECT_EQ(a.api_id, b.api_id);
    EXPECT_EQ(a.project, b.project);
    EXPECT_EQ(a.start_ms, b.start_ms);
    EXPECT_EQ(a.end_ms, b.end_ms);
    EXPECT_EQ(a.seconds, b.seconds);
    EXPECT_EQ(a.changed_ms, b.changed_ms);
    EXPECT_EQ(a.active, b.active);
}

class HistoryStore : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_path = QString(testenv::freshDir(QStringLiteral("store")) + QStringLiteral("/history.db")).toStdString();
    }
    std::string m_path;
};

} // namespace

TEST_F(HistoryStore, EmptySaveCreatesTheStoreWithItsTableAndIndex)
{
    tracker::saveActivities(m_path, {});
    ASSERT_TRUE(QFile::exists(QString::fromStdString(m_path)));
    EXPECT_TRUE(tracker::history(m_path).empty());
    EXPECT_TRUE(tracker::summaryHistory(m_path, 0).empty());
    // The newest-first read must not sort the whole table.
    EXPECT_EQ(scalar(m_path,
                  "SELECT count(*) FROM sqlite_master WHERE type='index' AND tbl_name='activities' AND sql LIKE "
                  "'%(start_ms)'"),
        1);
}

TEST_F(HistoryStore, ReadersFailBeforeTheFirstSave)
{
    EXPECT_THROW(tracker::history(m_path), std::runtime_error);
    EXPECT_THROW(tracker::summaryHistory(m_path, 0), std::runtime_error);
    EXPECT_FALSE(QFile::exists(QString::fromStdString(m_path)));
}

TEST_F(HistoryStore, UpsertsByAccountAndIdKeepingEveryBitOfTheValues)
{
    tracker::Activity odd = activity("1_activity", 1, 1000, std::string("A\xff\0B", 4));
    odd.api_id = INT64_MIN;
    odd.changed_ms = INT64_MAX;
    odd.active = -3;
    tracker::saveActivities(m_path, {odd, activity("1_activity", 2, 2000), activity("2_activity", 1, 3000)});

    // Same key twice in one save and again in a later one: one row, the last values win.
    tracker::Activity renamed = activity("1_activity", 2, 2000, "renamed");
    tracker::Activity renamedAgain = activity("1_activity", 2, 2000, "renamed again");
    tracker::saveActivities(m_path, {renamed, renamedAgain});

    const auto stored = tracker::history(m_path);
    ASSERT_EQ(stored.size(), 3u);
    expectSame(stored[0], activity("2_activity", 1, 3000)); // same id, other account: its own row
    expectSame(stored[1], renamedAgain);
    expectSame(stored[2], odd);

    // A later save that repeats an older value still writes it.
    tracker::saveActivities(m_path, {renamedAgain, renamed});
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
    std::reverse(activities.begin(), activities.end()); // order must not matter
    activities.push_back(activity("1_activity", 99, 99000));
    tracker::saveActivities(m_path, activities);

    EXPECT_EQ(scalar(m_path, "SELECT count(*) FROM writes"), 1);
    EXPECT_EQ(scalar(m_path, "SELECT id FROM writes"), 17);
    EXPECT_EQ(scalar(m_path, "SELECT end_ms FROM activities WHERE id=17"), 17000 + 65000);
    EXPECT_EQ(scalar(m_path, "SELECT count(*) FROM activities"), 51);
}

TEST_F(HistoryStore, FailedSaveKeepsWhatWasStored)
{
    // A store that rejects one row halfway through a save (here through a constraint of its own).
    runSql(m_path,
        "CREATE TABLE activities(source TEXT,id INTEGER,api_id INTEGER,project INTEGER,start_ms INTEGER,end_ms "
        "INTEGER,description TEXT CHECK(description <> 'reject'),source_seconds INTEGER,source_active "
        "INTEGER,changed_ms INTEGER,PRIMARY KEY(source,id))");
    tracker::saveActivities(m_path, {activity("1_activity", 1, 1000, "kept")});

    EXPECT_EQ(saveError(m_path,
                  {activity("1_activity", 1, 1000, "overwritten?"), activity("1_activity", 2, 2000, "new?"),
                      activity("1_activity", 3, 3000, "reject")}),
        "CHECK constraint failed: description <> 'reject'");

    const auto stored = tracker::history(m_path);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].description, "kept");
}

TEST_F(HistoryStore, SaveWaitsForAnotherWriterThenFailsAsLockedLosingNothing)
{
    tracker::saveActivities(m_path, {activity("1_activity", 1, 1000, "kept")});
    {
        trackertest::SqliteChild other(
            QString::fromStdString(m_path), QStringLiteral("BEGIN IMMEDIATE; DELETE FROM activities;"));
        ASSERT_TRUE(other.ready());
        EXPECT_EQ(saveError(m_path, {activity("1_activity", 2, 2000)}), "database is locked");
    }
    const auto stored = tracker::history(m_path);
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0].description, "kept");
}

TEST_F(HistoryStore, HistoryIsTheNewestThousandByStart)
{
    std::vector<tracker::Activity> activities;
    for (int i = 0; i < 1500; ++i)
        activities.push_back(activity("1_activity", i, ((i * 7919) % 1500) * 1000LL)); // starts out of order
    tracker::saveActivities(m_path, activities);

    const auto newest = tracker::history(m_path);
    ASSERT_EQ(newest.size(), 1000u);
    for (size_t i = 0; i < newest.size(); ++i)
        EXPECT_EQ(newest[i].start_ms, (1499 - static_cast<int64_t>(i)) * 1000);
}

TEST_F(HistoryStore, SummaryTakesEveryIntervalTouchingTheSinceTimeWhole)
{
    tracker::Activity before = activity("1_activity", 1, 0); // 0 .. 60000
    tracker::Activity across = activity("1_activity", 2, 90000); // 90000 .. 150000
    tracker::Activity endsAtSince = activity("1_activity", 3, 40000); // 40000 .. 100000
    tracker::Activity open = activity("1_activity", 4, 200000);
    open.end_ms = 0; // still running
    across.project = 7;
    tracker::saveActivities(m_path, {before, across, endsAtSince, open});

    auto triples = tracker::summaryHistory(m_path, 100000);
    std::sort(triples.begin(), triples.end(), [](const auto &a, const auto &b) { return a[1] < b[1]; });
    const std::vector<std::array<int64_t, 3>> expected {{42, 40000, 100000}, {7, 90000, 150000}, {42, 200000, 0}};
    EXPECT_EQ(triples, expected);
}
