#include "source/trackerdb.h"
#include "support/testenv.h"
#include "trackerfixture.h"

#include <QDir>
#include <QFile>
#include <QRandomGenerator>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

using trackertest::accountTable;
using trackertest::fileBytes;
using trackertest::runSql;

namespace
{

std::string readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error("missing test data");
    return file.readAll().toStdString();
}

// The message readActivities throws, or "no error".
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
    void SetUp() override
    {
        m_dir = testenv::freshDir(QStringLiteral("tracker"));
        m_path = QString(m_dir + QStringLiteral("/Stintwatch.db")).toStdString();
    }
    QString qpath() const { return QString::fromStdString(m_path); }

    QString m_dir;
    std::string m_path;
};

} // namespace

TEST_F(TrackerReader, ReadsEveryAccountTableWithItsExactSuffixInListedOrder)
{
    runSql(m_path, readFile(testenv::dataPath(QStringLiteral("tracker-accounts.sql"))));

    const std::vector<tracker::Activity> activities = tracker::readActivities(m_path);

    ASSERT_EQ(activities.size(), 4u);
    // Within a table SQLite's own order (here the rowid), tables in the order the catalogue lists them.
    const tracker::Activity &first = activities[0];
    EXPECT_EQ(first.source, "12345_activity");
    EXPECT_EQ(first.id, 3);
    EXPECT_EQ(first.api_id, 9002);
    EXPECT_EQ(first.project, 43);
    EXPECT_EQ(first.start_ms, 1774010000000);
    EXPECT_EQ(first.end_ms, 1774009000000); // open interval: copied as stored
    EXPECT_EQ(first.description, "still running");
    EXPECT_EQ(first.seconds, 0);
    EXPECT_EQ(first.active, 0);
    EXPECT_EQ(first.changed_ms, 1774010000500);

    EXPECT_EQ(activities[1].source, "12345_activity");
    EXPECT_EQ(activities[1].id, 7);
    EXPECT_EQ(activities[1].description, "ENG-7 review");
    EXPECT_EQ(activities[2].source, "67890_activity");
    EXPECT_EQ(activities[2].api_id, -5);
    EXPECT_EQ(activities[2].description, ""); // NULL
    EXPECT_EQ(activities[3].source, "_activity");
    EXPECT_EQ(activities[3].active, 11);
    for (const tracker::Activity &a : activities) {
        EXPECT_NE(a.description, "upper case");
        EXPECT_NE(a.description, "wildcard");
    }
}

TEST_F(TrackerReader, DatabaseWithoutAccountTablesGivesNoActivities)
{
    runSql(m_path, "CREATE TABLE settings(key TEXT); CREATE TABLE activity(id INTEGER);");
    EXPECT_TRUE(tracker::readActivities(m_path).empty());
}

TEST_F(TrackerReader, ReadsTableWhoseNameHasADoubleQuote)
{
    const std::string table = "12\"34_activity";
    EXPECT_EQ(tracker::quote(table), "\"12\"\"34_activity\"");
    runSql(m_path,
        accountTable(table) + "INSERT INTO " + tracker::quote(table) + " VALUES(1, 2, 3, 4, 5, 'quoted', 6, 1, 7);");

    const auto activities = tracker::readActivities(m_path);
    ASSERT_EQ(activities.size(), 1u);
    EXPECT_EQ(activities[0].source, table);
    EXPECT_EQ(activities[0].description, "quoted");
}

TEST_F(TrackerReader, KeepsDescriptionBytesAsStored)
{
    runSql(m_path,
        accountTable("1_activity")
            + "INSERT INTO \"1_activity\" VALUES(1, 0, 0, 0, 0, CAST(X'41FF00C328' AS TEXT), 0, 0, 0);"
              "INSERT INTO \"1_activity\" VALUES(2, 0, 0, 0, 0, 'caf\xc3\xa9 \xe2\x80\x94 ENG-1', 0, 0, 0);");

    const auto activities = tracker::readActivities(m_path);
    ASSERT_EQ(activities.size(), 2u);
    // Invalid UTF-8 and an embedded NUL survive byte for byte; turning them into text is the caller's choice.
    EXPECT_EQ(activities[0].description, std::string("A\xff\0\xc3(", 5));
    EXPECT_EQ(activities[1].description, "caf\xc3\xa9 \xe2\x80\x94 ENG-1");
}

TEST_F(TrackerReader, ConvertsTextInNumericColumnsAsSqliteDoes)
{
    // Columns without a declared type keep text as text, so the reader meets it as the tracker wrote it.
    runSql(m_path,
        "CREATE TABLE \"1_activity\"(id, apiId, projectId, startTime, endTime, description, seconds, active, "
        "lastChanged);"
        "INSERT INTO \"1_activity\" VALUES('42', '12abc', 'abc', 3.9, '99999999999999999999', 17, NULL, '1', "
        "' 7 ');");

    const auto activities = tracker::readActivities(m_path);
    ASSERT_EQ(activities.size(), 1u);
    const tracker::Activity &a = activities[0];
    EXPECT_EQ(a.id, 42);
    EXPECT_EQ(a.api_id, 12);
    EXPECT_EQ(a.project, 0);
    EXPECT_EQ(a.start_ms, 3);
    EXPECT_EQ(a.end_ms, INT64_MAX);
    EXPECT_EQ(a.description, "17");
    EXPECT_EQ(a.seconds, 0);
    EXPECT_EQ(a.active, 1);
    EXPECT_EQ(a.changed_ms, 7);
}

TEST_F(TrackerReader, TableWithoutTheTrackerColumnsFailsWithSqliteMessage)
{
    runSql(m_path, "CREATE TABLE \"1_activity\"(id INTEGER, note TEXT);");
    EXPECT_EQ(readError(m_path), "no such column: apiId");
}

TEST_F(TrackerReader, MissingDatabaseFailsWithoutCreatingIt)
{
    EXPECT_EQ(readError(m_path), "unable to open database file");
    EXPECT_FALSE(QFile::exists(qpath()));
}

TEST_F(TrackerReader, UnreadableDatabaseFails)
{
    runSql(m_path, accountTable("1_activity"));
    // A folder in place of the file cannot be read by anyone, root included.
    const std::string folder = QString(m_dir + QStringLiteral("/folder.db")).toStdString();
    QDir().mkpath(QString::fromStdString(folder));
    EXPECT_EQ(readError(folder), "disk I/O error");

    ASSERT_EQ(chmod(m_path.c_str(), 0), 0);
    if (geteuid() == 0)
        GTEST_SKIP() << "running as root: file permissions do not stop root from reading";
    EXPECT_EQ(readError(m_path), "unable to open database file");
}

TEST_F(TrackerReader, CorruptDatabaseFails)
{
    QByteArray noise(8192, '\0');
    QRandomGenerator generator(20261122);
    for (char &c : noise)
        c = static_cast<char>(generator.bounded(256));
    QFile file(qpath());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(noise);
    file.close();

    EXPECT_EQ(readError(m_path), "file is not a database");
    EXPECT_EQ(fileBytes(qpath()), noise);
}

TEST_F(TrackerReader, ReadingLeavesTheFileUntouched)
{
    runSql(m_path, readFile(testenv::dataPath(QStringLiteral("tracker-accounts.sql"))));
    const QByteArray before = fileBytes(qpath());

    EXPECT_EQ(tracker::readActivities(m_path).size(), 4u);

    EXPECT_EQ(fileBytes(qpath()), before);
    EXPECT_EQ(QDir(m_dir).entryList(QDir::Files), QStringList {QStringLiteral("Stintwatch.db")});
}

TEST_F(TrackerReader, ExclusiveLockInRollbackModeFailsAsLocked)
{
    runSql(m_path, accountTable("1_activity") + "INSERT INTO \"1_activity\" VALUES(1, 0, 0, 0, 0, 'a', 0, 0, 0);");
    trackertest::SqliteChild writer(
        qpath(), QStringLiteral("BEGIN EXCLUSIVE; INSERT INTO \"1_activity\" VALUES(2, 0, 0, 0, 0, 'b', 0, 0, 0);"));
    ASSERT_TRUE(writer.ready());

    EXPECT_EQ(readError(m_path), "database is locked");
}

TEST_F(TrackerReader, PendingWriteInRollbackModeStillReadsLastCommit)
{
    runSql(m_path, accountTable("1_activity") + "INSERT INTO \"1_activity\" VALUES(1, 0, 0, 0, 0, 'a', 0, 0, 0);");
    // A reserved lock (a write in progress that has not reached the file) lets readers in.
    trackertest::SqliteChild writer(
        qpath(), QStringLiteral("BEGIN IMMEDIATE; INSERT INTO \"1_activity\" VALUES(2, 0, 0, 0, 0, 'b', 0, 0, 0);"));
    ASSERT_TRUE(writer.ready());

    const auto activities = tracker::readActivities(m_path);
    ASSERT_EQ(activities.size(), 1u);
    EXPECT_EQ(activities[0].description, "a");
}

// The tracker runs its database in WAL mode and keeps writing while we read.
TEST_F(TrackerReader, ReadsCommittedSnapshotOfWalDatabaseWithoutChangingItsFiles)
{
    runSql(m_path,
        "PRAGMA journal_mode=WAL;" + accountTable("1_activity")
            + "INSERT INTO \"1_activity\" VALUES(1, 0, 0, 0, 0, 'checkpointed', 0, 0, 0);");
    // The child commits a row that stays in the WAL file, then holds an uncommitted write.
    trackertest::SqliteChild writer(qpath(),
        QStringLiteral("PRAGMA wal_autocheckpoint=0;"
                       "INSERT INTO \"1_activity\" VALUES(2, 0, 0, 0, 0, 'in wal', 0, 0, 0);"
                       "BEGIN EXCLUSIVE;"
                       "INSERT INTO \"1_activity\" VALUES(3, 0, 0, 0, 0, 'uncommitted', 0, 0, 0);"
                       "UPDATE \"1_activity\" SET description='changed' WHERE id=1;"));
    ASSERT_TRUE(writer.ready());
    const QString wal = qpath() + QStringLiteral("-wal");
    const QByteArray dbBefore = fileBytes(qpath());
    const QByteArray walBefore = fileBytes(wal);
    ASSERT_FALSE(walBefore.isEmpty());

    for (int round = 0; round < 3; ++round) {
        const auto activities = tracker::readActivities(m_path);
        ASSERT_EQ(activities.size(), 2u);
        EXPECT_EQ(activities[0].description, "checkpointed");
        EXPECT_EQ(activities[1].description, "in wal");
    }

    EXPECT_EQ(fileBytes(qpath()), dbBefore);
    EXPECT_EQ(fileBytes(wal), walBefore);
}
