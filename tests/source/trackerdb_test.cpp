#include "source/trackerdb.h"
#include "support/testenv.h"
#include "trackerfixture.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>

using namespace trackertest;

namespace
{

std::string readError(const std::string &path)
{
    try {
        tracker::readActivities(path);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "no error";
}

class TrackerReader : public ::testing::Test
{
protected:
    QString m_dir = testenv::freshDir(QStringLiteral("tracker"));
    QString m_file = m_dir + QStringLiteral("/Stintwatch.db");
    std::string m_path = m_file.toStdString();
};

} // namespace

TEST_F(TrackerReader, ReadsExactlyTheAccountTablesInListedOrder)
{
    QFile sql(testenv::dataPath(QStringLiteral("tracker-accounts.sql")));
    ASSERT_TRUE(sql.open(QIODevice::ReadOnly));
    runSql(m_path, sql.readAll().toStdString());

    const auto activities = tracker::readActivities(m_path);

    // Upper-case "_ACTIVITY" and the LIKE wildcard's "xactivity" are skipped; rows in SQLite's own order.
    std::vector<std::tuple<std::string, int64_t, std::string>> seen;
    for (const tracker::Activity &a : activities)
        seen.emplace_back(a.source, a.id, a.description);
    const decltype(seen) expected {{"12345_activity", 3, "still running"}, {"12345_activity", 7, "ENG-7 review"},
        {"67890_activity", 1, ""}, {"_activity", 5, "bare suffix"}};
    ASSERT_EQ(seen, expected);
    const tracker::Activity &a = activities[0];
    EXPECT_EQ(std::tuple(a.api_id, a.project, a.start_ms, a.end_ms, a.seconds, a.active, a.changed_ms),
        std::tuple(9002, 43, 1774010000000, 1774009000000, 0, 0, 1774010000500));
}

TEST_F(TrackerReader, KeepsOddNamesBytesAndTypesAsSqliteGivesThem)
{
    EXPECT_EQ(tracker::quote("12\"34_activity"), "\"12\"\"34_activity\"");
    // Untyped columns keep text as text, so the reader meets it as written; SQLite's usual conversions apply.
    runSql(m_path,
        accountTable("\"12\"\"34_activity\"")
            + "INSERT INTO \"12\"\"34_activity\" VALUES(1, 0, 0, 0, 0, CAST(X'41FF00C328' AS TEXT), 0, 0, 0);"
              "INSERT INTO \"12\"\"34_activity\" VALUES(2, 0, 0, 0, 0, NULL, 0, 0, 0);"
              "CREATE TABLE \"5_activity\"(id, apiId, projectId, startTime, endTime, description, seconds, active, "
              "lastChanged);"
              "INSERT INTO \"5_activity\" VALUES('42', '12abc', 'abc', 3.9, '99999999999999999999', 17, NULL, '1', "
              "' 7 ');");

    const auto activities = tracker::readActivities(m_path);
    ASSERT_EQ(activities.size(), 3u);
    EXPECT_EQ(activities[0].source, "12\"34_activity");
    EXPECT_EQ(activities[0].description, std::string("A\xff\0\xc3(", 5)); // invalid UTF-8 and NUL, byte for byte
    EXPECT_EQ(activities[1].description, "");
    const tracker::Activity &a = activities[2];
    EXPECT_EQ(
        std::tuple(a.id, a.api_id, a.project, a.start_ms, a.end_ms, a.description, a.seconds, a.active, a.changed_ms),
        std::tuple(42, 12, 0, 3, INT64_MAX, std::string("17"), 0, 1, 7));
}

// Row ids only size the list in advance: far-apart, extreme or absent row ids change nothing that is read.
TEST_F(TrackerReader, ReadsEveryRowWhateverItsRowIds)
{
    const auto row = [](const char *table, const char *id) {
        return std::string("INSERT INTO \"") + table + "\" VALUES(" + id + ", 0, 0, 0, 0, 'x', 0, 0, 0);";
    };
    runSql(m_path,
        accountTable("\"1_activity\"") + row("1_activity", "1") + row("1_activity", "3") + row("1_activity", "2000000")
            + accountTable("\"2_activity\"") + row("2_activity", "-9223372036854775808")
            + row("2_activity", "9223372036854775807")
            + "CREATE TABLE \"3_activity\"(id INTEGER PRIMARY KEY, apiId, projectId, startTime, endTime, description, "
              "seconds, active, lastChanged) WITHOUT ROWID;"
            + row("3_activity", "6") + row("3_activity", "5") + accountTable("\"4_activity\"")
            + row("4_activity", "900000") + row("4_activity", "10"));

    std::vector<std::pair<std::string, int64_t>> seen;
    for (const tracker::Activity &a : tracker::readActivities(m_path))
        seen.emplace_back(a.source, a.id);
    const decltype(seen) expected {{"1_activity", 1}, {"1_activity", 3}, {"1_activity", 2000000},
        {"2_activity", INT64_MIN}, {"2_activity", INT64_MAX}, {"3_activity", 5}, {"3_activity", 6}, {"4_activity", 10},
        {"4_activity", 900000}};
    EXPECT_EQ(seen, expected);
}

TEST_F(TrackerReader, UnusableFilesFailWithSqliteMessage)
{
    EXPECT_EQ(readError(m_path), "unable to open database file");
    EXPECT_FALSE(QFile::exists(m_file)); // a read-only open never creates the file

    QDir().mkpath(m_file);
    EXPECT_EQ(readError(m_path), "disk I/O error"); // a folder in its place
    QDir().rmdir(m_file);

    QFile noise(m_file);
    ASSERT_TRUE(noise.open(QIODevice::WriteOnly));
    for (int i = 0; i < 8192; ++i)
        noise.putChar(static_cast<char>(i * 7919 % 251));
    noise.close();
    EXPECT_EQ(readError(m_path), "file is not a database");
    QFile::remove(m_file);

    runSql(m_path, "CREATE TABLE settings(key TEXT);");
    EXPECT_TRUE(tracker::readActivities(m_path).empty());
    runSql(m_path, "CREATE TABLE \"1_activity\"(id INTEGER, note TEXT);");
    EXPECT_EQ(readError(m_path), "no such column: apiId");
}

// The tracker runs its database in WAL mode and keeps writing while it is read.
TEST_F(TrackerReader, ReadsCommittedSnapshotOfWalDatabaseWithoutChangingItsFiles)
{
    runSql(m_path,
        "PRAGMA journal_mode=WAL;" + accountTable("\"1_activity\"") + "INSERT INTO \"1_activity\"(id) VALUES(1);");
    const QByteArray closedBytes = fileBytes(m_file);
    // With the tracker closed, SQLite opens an empty -wal beside it that a read-only reader cannot remove.
    EXPECT_EQ(tracker::readActivities(m_path).size(), 1u);
    EXPECT_EQ(fileBytes(m_file), closedBytes);

    // One committed row stays in the WAL file; then an exclusive write transaction is held open.
    SqliteChild writer(m_file,
        QStringLiteral(
            "PRAGMA wal_autocheckpoint=0; INSERT INTO \"1_activity\"(id) VALUES(2);"
            "BEGIN EXCLUSIVE; INSERT INTO \"1_activity\"(id) VALUES(3); DELETE FROM \"1_activity\" WHERE id=1;"));
    ASSERT_TRUE(writer.ready());
    const QString wal = m_file + QStringLiteral("-wal");
    const QByteArray dbBefore = fileBytes(m_file), walBefore = fileBytes(wal);
    ASSERT_FALSE(walBefore.isEmpty());

    const auto activities = tracker::readActivities(m_path);
    ASSERT_EQ(activities.size(), 2u);
    EXPECT_EQ(activities[0].id, 1);
    EXPECT_EQ(activities[1].id, 2);
    EXPECT_EQ(fileBytes(m_file), dbBefore);
    EXPECT_EQ(fileBytes(wal), walBefore);
}
