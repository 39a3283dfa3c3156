// The program as a user starts it: real processes, each with its own HOME, XDG folders and runtime folder.

#include "app/rundiagnostics.h"
#include "simtracker.h"
#include "support/testenv.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QImage>
#include <QLocalSocket>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <csignal>

namespace
{

struct Profile {
    explicit Profile(const QString &name)
        : home(testenv::freshDir(name))
    {
        QDir().mkpath(runtime());
        QFile::setPermissions(runtime(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    QString runtime() const { return home + QStringLiteral("/run"); }
    QString socket() const { return runtime() + QStringLiteral("/app.hourloom.Hourloom.socket"); }
    QProcessEnvironment environment() const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), home);
        environment.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/.local/share"));
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/.config"));
        environment.insert(QStringLiteral("XDG_STATE_HOME"), home + QStringLiteral("/.local/state"));
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime());
        return environment;
    }
    // Starts the program; the caller waits for it.
    void start(QProcess &process, const QStringList &arguments, const QProcessEnvironment &extra = {}) const
    {
        QProcessEnvironment env = environment();
        for (const QString &key : extra.keys())
            env.insert(key, extra.value(key));
        process.setProcessEnvironment(env);
        process.setWorkingDirectory(home);
        process.start(testenv::hourloomBinary(), arguments);
        ASSERT_TRUE(process.waitForStarted(10000));
    }
    QString home;
};

// Whether a running Hourloom listens in this profile.
bool answering(const Profile &profile)
{
    QLocalSocket socket;
    socket.connectToServer(profile.socket());
    return socket.waitForConnected(200);
}

int terminate(QProcess &process)
{
    ::kill(pid_t(process.processId()), SIGTERM);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit)
        return -1;
    return process.exitCode();
}

TEST(Application, StartsForAnyUnknownArgumentsAndEndsCleanlyOnTerm)
{
    for (const QStringList &arguments :
        {QStringList {}, QStringList {QStringLiteral("--probe-x")}, QStringList {QStringLiteral("--help")}}) {
        Profile profile(QStringLiteral("home"));
        QProcess app;
        profile.start(app, arguments);
        const QString history = profile.home + QStringLiteral("/.local/share/Hourloom/history.db");
        ASSERT_TRUE(testenv::waitFor([&] { return answering(profile) && QFileInfo(history).isFile(); }, 30000))
            << arguments.join(u' ').toStdString() << app.readAllStandardError().toStdString();
        EXPECT_EQ(terminate(app), 0);
        EXPECT_EQ(app.readAllStandardOutput(), QByteArray());
    }
}

// A second launch asks the first to show its window and ends; a crashed first never blocks the next start.
TEST(Application, SecondLaunchDefersToTheFirstAndAStaleLockIsTakenOver)
{
    Profile profile(QStringLiteral("home"));
    QProcess first;
    profile.start(first, {});
    ASSERT_TRUE(testenv::waitFor([&] { return answering(profile); }, 30000));

    QProcess second;
    profile.start(second, {});
    ASSERT_TRUE(second.waitForFinished(30000));
    EXPECT_EQ(second.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.exitCode(), 0) << second.readAllStandardError().toStdString();
    EXPECT_EQ(first.state(), QProcess::Running);

    // A crash leaves the lock file and the socket file behind.
    ::kill(pid_t(first.processId()), SIGKILL);
    ASSERT_TRUE(first.waitForFinished(30000));
    ASSERT_TRUE(QFileInfo::exists(profile.runtime() + QStringLiteral("/app.hourloom.Hourloom.lock")));

    QProcess third;
    profile.start(third, {});
    ASSERT_TRUE(testenv::waitFor([&] { return answering(profile); }, 30000))
        << third.readAllStandardError().toStdString();
    EXPECT_EQ(third.state(), QProcess::Running);
    EXPECT_EQ(terminate(third), 0);
}

struct Outcome {
    int status = -1;
    QString out;
    QString err;
    qint64 elapsedMs = 0;
};

Outcome runToEnd(const Profile &profile, const QStringList &arguments, const QProcessEnvironment &extra = {})
{
    QProcess process;
    QElapsedTimer clock;
    clock.start();
    profile.start(process, arguments, extra);
    Outcome run;
    if (!process.waitForFinished(90000) || process.exitStatus() != QProcess::NormalExit) {
        process.kill();
        process.waitForFinished();
        return run;
    }
    run.elapsedMs = clock.elapsed();
    run.status = process.exitCode();
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QProcessEnvironment variables(std::initializer_list<std::pair<QString, QString>> pairs)
{
    QProcessEnvironment environment;
    for (const auto &[key, value] : pairs)
        environment.insert(key, value);
    return environment;
}

TEST(SmokeTest, WorklogsPreviewWaitsAtLeastThreeSecondsAndWritesItsSnapshot)
{
    Profile profile(QStringLiteral("home"));
    const Outcome run = runToEnd(profile, {QStringLiteral("--jira-smoke-test")},
        variables({{QStringLiteral("HOURLOOM_SMOKE_HOLD_SECONDS"), QStringLiteral("2")}}));
    EXPECT_EQ(run.status, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, QStringLiteral("Jira preview smoke test completed (synthetic data, no authorization).\n"));
    EXPECT_GE(run.elapsedMs, 3000);
    const QImage snapshot(profile.home + QStringLiteral("/build/jira-preview.png"));
    EXPECT_FALSE(snapshot.isNull());
    EXPECT_TRUE(QFileInfo(profile.home + QStringLiteral("/build/jira-preview-data")).isDir());
}

TEST(SmokeTest, WholeApplicationShowsTheWindowForAReopenAndReportsRows)
{
    Profile profile(QStringLiteral("home"));
    const QString source = profile.home + QStringLiteral("/tracker");
    {
        SimTracker tracker(source);
        tracker.create();
        tracker.start(42, QStringLiteral("ED-1 Fix the login"));
        tracker.switchTo(43, QStringLiteral("ED-2 Review"));
        tracker.stop();
    }
    const QString store = profile.home + QStringLiteral("/store");
    const Outcome run = runToEnd(profile, {QStringLiteral("--smoke-test")},
        variables({{QStringLiteral("HL_TEST_SOURCE"), source}, {QStringLiteral("HL_TEST_STORE"), store},
            {QStringLiteral("HOURLOOM_SMOKE_HOLD_SECONDS"), QStringLiteral("x")}}));
    EXPECT_EQ(run.status, 0) << run.err.toStdString();
    const QStringList lines = run.out.split(u'\n');
    ASSERT_EQ(lines.size(), 3) << run.out.toStdString();
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^Before screenshot: peak resident memory \\d+\\.\\d MiB$"))
                    .match(lines[0])
                    .hasMatch())
        << lines[0].toStdString();
    EXPECT_TRUE(
        QRegularExpression(QStringLiteral("^Smoke test: 2 rows, peak resident memory \\d+\\.\\d MiB, status: .+$"))
            .match(lines[1])
            .hasMatch())
        << lines[1].toStdString();
    EXPECT_GE(run.elapsedMs, 4000);
    EXPECT_FALSE(QImage(profile.home + QStringLiteral("/build/smoke-window.png")).isNull());
    EXPECT_TRUE(QFileInfo(store + QStringLiteral("/history.db")).isFile());
}

TEST(SmokeTest, HoldTimeKeepsTheWholeApplicationRunningAfterTheSnapshot)
{
    Profile profile(QStringLiteral("home"));
    const Outcome run = runToEnd(profile, {QStringLiteral("--smoke-test")},
        variables({{QStringLiteral("HL_TEST_SOURCE"), profile.home + QStringLiteral("/none")},
            {QStringLiteral("HOURLOOM_SMOKE_HOLD_SECONDS"), QStringLiteral("7")}}));
    EXPECT_EQ(run.status, 0) << run.err.toStdString();
    EXPECT_TRUE(run.out.contains(QStringLiteral("Smoke test: 0 rows")));
    EXPECT_GE(run.elapsedMs, 7000);
    // Without HL_TEST_STORE the store is build/smoke-data below the current folder.
    EXPECT_TRUE(QFileInfo(profile.home + QStringLiteral("/build/smoke-data/history.db")).isFile());
}

TEST(SmokeTest, StoreThatCannotBeCreatedEndsWithStatusOne)
{
    Profile profile(QStringLiteral("home"));
    QFile blocker(profile.home + QStringLiteral("/file"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    const Outcome run = runToEnd(profile, {QStringLiteral("--smoke-test")},
        variables({{QStringLiteral("HL_TEST_STORE"), blocker.fileName() + QStringLiteral("/store")}}));
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("Cannot create local tracking history: "))) << run.err.toStdString();
    EXPECT_EQ(run.out, QString());
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString trackerFolder(const Profile &profile)
{
    return profile.home + QStringLiteral("/.local/share/Stintwatch");
}

// A tracker database the way the tracker keeps it: WAL mode, with its connection still open, recent commits
// not yet checkpointed into the main file, and a write transaction in progress.
class LiveTracker
{
public:
    explicit LiveTracker(const Profile &profile)
    {
        QDir().mkpath(trackerFolder(profile));
        const QByteArray path = QFile::encodeName(trackerFolder(profile) + QStringLiteral("/Stintwatch.db"));
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

TEST(Probe, CountsEveryCommittedActivityWithoutTouchingTheDatabase)
{
    Profile profile(QStringLiteral("home"));
    LiveTracker tracker(profile);
    const QString database = trackerFolder(profile) + QStringLiteral("/Stintwatch.db");
    const QByteArray mainBefore = readFile(database);
    const QByteArray walBefore = readFile(database + QStringLiteral("-wal"));
    ASSERT_FALSE(walBefore.isEmpty());

    // Four rows in the fixture's account tables, one more committed to the WAL; the open transaction's row
    // is not there yet.
    const Outcome run = runToEnd(profile, {QStringLiteral("--probe"), QStringLiteral("ignored")});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, QStringLiteral("Read-only probe: 5 activities across all projects. No credentials read.\n"));
    EXPECT_EQ(run.err, QString());
    EXPECT_EQ(readFile(database), mainBefore);
    EXPECT_EQ(readFile(database + QStringLiteral("-wal")), walBefore);
    EXPECT_FALSE(QFileInfo::exists(profile.home + QStringLiteral("/.local/share/Hourloom")));
}

// The diagnostic commands that cannot do their work say why, leave what they were given as it was and never
// start the application.
TEST(CommandLine, RefusalsSayWhyAndTouchNothing)
{
    const struct {
        const char *what;
        QByteArray database; // written as Stintwatch.db when not null
        QStringList arguments;
        int status;
        const char *out;
        const char *err;
    } cases[] = {
        {"probe without a database", {}, {QStringLiteral("--probe")}, 1, "",
            "Probe failed: unable to open database file\n"},
        {"probe of a corrupt database", QByteArray(16384, '\x5a'), {QStringLiteral("--probe")}, 1, "",
            "Probe failed: file is not a database\n"},
        {"invoice without a path", {}, {QStringLiteral("--invoice")}, 2, "usage: --invoice <invoice.pdf>\n", ""},
        {"invoice that is not a file", {}, {QStringLiteral("--invoice"), QStringLiteral("week.pdf")}, 1,
            "Could not read the invoice: That is not a regular file, so it cannot be read as a PDF.\n", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        Profile profile(QStringLiteral("home"));
        QDir().mkpath(trackerFolder(profile));
        const QString database = trackerFolder(profile) + QStringLiteral("/Stintwatch.db");
        if (!c.database.isNull()) {
            QFile file(database);
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(c.database);
        }
        const Outcome run = runToEnd(profile, c.arguments);
        EXPECT_EQ(run.status, c.status);
        EXPECT_EQ(run.out, QString::fromUtf8(c.out));
        EXPECT_EQ(run.err, QString::fromUtf8(c.err));
        EXPECT_EQ(readFile(database), c.database);
        EXPECT_FALSE(QFileInfo::exists(profile.home + QStringLiteral("/.local/share/Hourloom")));
    }
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

} // namespace
