#include "app/rundiagnostics.h"
#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <random>

namespace
{

struct Outcome {
    int exitCode = -1;
    QString out;
    QString err;
};

// Runs the built program with its own HOME and data folder, as a user would from a shell.
Outcome runHourloom(const QStringList &arguments, const QString &home)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOME"), home);
    environment.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/.local/share"));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/.config"));
    environment.insert(QStringLiteral("XDG_STATE_HOME"), home + QStringLiteral("/.local/state"));
    process.setProcessEnvironment(environment);
    process.start(testenv::hourloomBinary(), arguments);
    Outcome run;
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.exitCode = process.exitCode();
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString trackerFolder(const QString &home)
{
    return home + QStringLiteral("/.local/share/Stintwatch");
}

// A tracker database the way the tracker keeps it: WAL mode, with its connection still open, recent commits
// not yet checkpointed into the main file, and a write transaction in progress.
class LiveTracker
{
public:
    explicit LiveTracker(const QString &home)
    {
        QDir().mkpath(trackerFolder(home));
        const QByteArray path = QFile::encodeName(trackerFolder(home) + QStringLiteral("/Stintwatch.db"));
        EXPECT_EQ(sqlite3_open(path.constData(), &m_db), SQLITE_OK);
        exec("PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;");
        exec(readFile(testenv::dataPath(QStringLiteral("tracker-accounts.sql"))).constData());
        exec("INSERT INTO \"67890_activity\" VALUES(2, 8, 77, 1774030000000, 1774030060000, 'in the WAL', 60, 1, 1);");
        exec("BEGIN IMMEDIATE; INSERT INTO \"67890_activity\" VALUES(3, 9, 77, 1, 2, 'uncommitted', 1, 1, 1);");
    }
    ~LiveTracker() { sqlite3_close(m_db); }

    void exec(const char *sql)
    {
        char *message = nullptr;
        EXPECT_EQ(sqlite3_exec(m_db, sql, nullptr, nullptr, &message), SQLITE_OK) << (message ? message : "");
        sqlite3_free(message);
    }

private:
    sqlite3 *m_db = nullptr;
};

} // namespace

TEST(Probe, CountsEveryCommittedActivityWithoutTouchingTheDatabase)
{
    const QString home = testenv::freshDir(QStringLiteral("home"));
    LiveTracker tracker(home);
    const QString database = trackerFolder(home) + QStringLiteral("/Stintwatch.db");
    const QByteArray mainBefore = readFile(database);
    const QByteArray walBefore = readFile(database + QStringLiteral("-wal"));
    ASSERT_FALSE(walBefore.isEmpty());

    // Four rows in the fixture's account tables, one more committed to the WAL; the open transaction's row
    // is not there yet.
    const Outcome run = runHourloom({QStringLiteral("--probe"), QStringLiteral("ignored")}, home);
    EXPECT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.out, QStringLiteral("Read-only probe: 5 activities across all projects. No credentials read.\n"));
    EXPECT_EQ(run.err, QString());
    EXPECT_EQ(readFile(database), mainBefore);
    EXPECT_EQ(readFile(database + QStringLiteral("-wal")), walBefore);
    EXPECT_FALSE(QFileInfo::exists(home + QStringLiteral("/.local/share/Hourloom")));
}

TEST(Probe, ReportsAMissingDatabaseWithoutCreatingIt)
{
    const QString home = testenv::freshDir(QStringLiteral("home"));
    QDir().mkpath(trackerFolder(home));
    const Outcome run = runHourloom({QStringLiteral("--probe")}, home);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, QString());
    EXPECT_EQ(run.err, QStringLiteral("Probe failed: unable to open database file\n"));
    EXPECT_TRUE(QDir(trackerFolder(home)).isEmpty());
}

TEST(Probe, ReportsACorruptDatabase)
{
    const QString home = testenv::freshDir(QStringLiteral("home"));
    QDir().mkpath(trackerFolder(home));
    std::mt19937 random(20260329);
    QByteArray noise(16384, Qt::Uninitialized);
    for (char &byte : noise)
        byte = char(random() & 0xff);
    QFile file(trackerFolder(home) + QStringLiteral("/Stintwatch.db"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(noise);
    file.close();

    const Outcome run = runHourloom({QStringLiteral("--probe")}, home);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, QString());
    EXPECT_EQ(run.err, QStringLiteral("Probe failed: file is not a database\n"));
    EXPECT_EQ(readFile(file.fileName()), noise);
}

TEST(RunDiagnostics, OnlyTheFourExactWordsAreCommands)
{
    const char *none[] = {"hourloom"};
    EXPECT_EQ(RunDiagnostics(1, none), -1);
    EXPECT_EQ(RunDiagnostics(0, nullptr), -1);
    for (const char *word : {"--probe-x", "--PROBE", "-probe", "--probe ", "--help", "", "--smoke", "--invoices"}) {
        const char *argv[] = {"hourloom", word};
        EXPECT_EQ(RunDiagnostics(2, argv), -1) << word;
    }
}

TEST(CommandLine, InvoiceWithoutAPathPrintsTheUsage)
{
    const QString home = testenv::freshDir(QStringLiteral("home"));
    const Outcome usage = runHourloom({QStringLiteral("--invoice")}, home);
    EXPECT_EQ(usage.exitCode, 2);
    EXPECT_EQ(usage.out, QStringLiteral("usage: --invoice <invoice.pdf>\n"));
    EXPECT_EQ(usage.err, QString());

    const Outcome withPath = runHourloom({QStringLiteral("--invoice"), home + QStringLiteral("/week.pdf")}, home);
    EXPECT_EQ(withPath.exitCode, 1);
    EXPECT_EQ(withPath.out,
        QStringLiteral("Could not read the invoice: That is not a regular file, so it cannot be read as a PDF.\n"));
    // A diagnostic command never starts the application.
    EXPECT_FALSE(QFileInfo::exists(home + QStringLiteral("/.local/share/Hourloom")));
}
