#include "source/stintwatchmonitor.h"

#include "diagnostics/diagnosticlog.h"
#include "platform/clock.h"
#include "simtracker.h"
#include "source/history.h"
#include "source/logparser.h"
#include "source/taskswitchobserver.h"
#include "source/trackerdb.h"
#include "summary/timesummary.h"
#include "support/testenv.h"
#include "trackerfixture.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTimer>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <memory>

namespace
{

const QString kLogUnavailable = QStringLiteral("Stintwatch log unavailable. Live state cannot be verified.");

class MonitorTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_folder = testenv::freshDir(QStringLiteral("tracker"));
        m_store = testenv::freshDir(QStringLiteral("store"));
        m_sim = std::make_unique<SimTracker>(m_folder);
        m_sim->setClock(
            [this] { return m_fixed ? m_clock.wallNow().addSecs(m_logAge) : QDateTime::currentDateTime(); });
        m_sim->create();
    }

    // With `fixedClock` the monitor and the tracker share a clock the test sets; otherwise both use real time.
    void startMonitor(bool fixedClock)
    {
        m_fixed = fixedClock;
        m_clock.setWall(QDateTime::currentDateTime());
        m_monitor = std::make_unique<StintwatchMonitor>(m_folder, m_store);
        if (fixedClock)
            m_monitor->setClock(&m_clock);
        if (m_processUnknown)
            m_monitor->setProcessCheck([] { return HLProcessState::Unknown; });
        else
            m_monitor->setRunningCheck([this] { return m_running; });
        m_monitor->start();
        ASSERT_TRUE(waitIdle(1));
    }

    bool waitIdle(int scans, int timeoutMs = 5000)
    {
        return testenv::waitFor([&] { return m_monitor->scanCount() >= scans && !m_monitor->isBusy(); }, timeoutMs);
    }

    // Runs a change of the tracker folder and waits until the monitor published a scan after it. A scan that
    // is still running may have read the folder before the change, so the change waits for it to finish.
    template<typename Change> bool afterChange(Change change)
    {
        if (!waitIdle(m_monitor->scanCount()))
            return false;
        const int before = m_monitor->scanCount();
        change();
        return waitIdle(before + 1);
    }

    QByteArray journal() const
    {
        QFile file(m_store + QStringLiteral("/events.jsonl"));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QString m_folder, m_store;
    std::unique_ptr<SimTracker> m_sim;
    std::unique_ptr<StintwatchMonitor> m_monitor;
    bool m_fixed = false;
    bool m_running = true;
    bool m_processUnknown = false; // the tracker's process cannot be seen (a sandbox without the host's)
    TestClock m_clock;
    int m_logAge = 0; // seconds added to the monitor's clock for what the tracker writes
};

// Real time: the start is seen through file events, well before the first 15 s fallback tick.
TEST_F(MonitorTest, SeesTrackingStartThroughFileEventsAndFollowsTheSession)
{
    m_sim->generateHistory(20, 1);
    startMonitor(false);
    EXPECT_EQ(m_monitor->rows().size(), 20);
    EXPECT_FALSE(m_monitor->liveObserved());
    EXPECT_TRUE(m_monitor->error().isEmpty()) << m_monitor->error().toStdString();

    const qint64 id = m_sim->start(42, QStringLiteral("eng-7 Fix the login"));
    ASSERT_TRUE(testenv::waitFor([&] { return m_monitor->liveObserved() && m_monitor->lastKind() == 1; }, 10000));
    EXPECT_EQ(m_monitor->project(), 42);
    EXPECT_EQ(m_monitor->currentDescription(), QStringLiteral("eng-7 Fix the login"));
    ASSERT_TRUE(waitIdle(m_monitor->scanCount()));
    ASSERT_TRUE(testenv::waitFor([&] { return m_monitor->rows().size() == 21; }));
    const QVariantMap newest = m_monitor->rows().first().toMap();
    EXPECT_EQ(newest.value(QStringLiteral("issue")).toString(), QStringLiteral("ENG-7"));
    EXPECT_EQ(newest.value(QStringLiteral("duration")).toString(), QStringLiteral("Unfinished"));
    EXPECT_EQ(newest.value(QStringLiteral("local_id")).toLongLong(), id);
    EXPECT_EQ(newest.value(QStringLiteral("source_account")).toString(), QStringLiteral("1001_activity"));

    // A heartbeat ties the live state to the activity it extends.
    ASSERT_TRUE(afterChange([&] { m_sim->heartbeat(); }));
    EXPECT_EQ(m_monitor->started().toMSecsSinceEpoch(), newest.value(QStringLiteral("start_ms")).toLongLong());

    ASSERT_TRUE(afterChange([&] { m_sim->stop(); }));
    ASSERT_TRUE(testenv::waitFor([&] { return m_monitor->lastKind() == 2; }));
    EXPECT_TRUE(m_monitor->liveObserved());

    // Live events are journaled without heartbeats, privately.
    const QList<QByteArray> lines = journal().trimmed().split('\n');
    ASSERT_EQ(lines.size(), 3);
    EXPECT_TRUE(lines[0].contains("\"kind\":1"));
    EXPECT_TRUE(lines[1].contains("eng-7 Fix the login"));
    EXPECT_TRUE(lines[2].contains("\"kind\":2"));
    struct stat status {
    };
    ASSERT_EQ(::stat(QFile::encodeName(m_store + QStringLiteral("/events.jsonl")).constData(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

struct AgeCase {
    int logAgeSeconds;
    int kind;
    bool live;
};

class MonitorLiveWindowTest : public MonitorTest, public ::testing::WithParamInterface<AgeCase>
{
};

TEST_P(MonitorLiveWindowTest, EventAgeDecidesWhetherTheStateIsLive)
{
    const AgeCase c = GetParam();
    startMonitor(true);
    if (c.kind == 4) {
        m_logAge = -300; // tracking began five minutes ago
        m_sim->start(42, QStringLiteral("ENG-1 Earlier"));
        ASSERT_TRUE(afterChange([&] { m_sim->describe(QStringLiteral("ENG-1 Earlier")); }));
        ASSERT_FALSE(m_monitor->liveObserved());
        m_logAge = c.logAgeSeconds;
        ASSERT_TRUE(afterChange([&] { m_sim->heartbeat(); }));
    } else {
        m_logAge = c.logAgeSeconds;
        ASSERT_TRUE(afterChange([&] { m_sim->start(42, QString()); }));
        EXPECT_EQ(m_monitor->lastKind(), 1);
    }
    EXPECT_EQ(m_monitor->liveObserved(), c.live);
}

INSTANTIATE_TEST_SUITE_P(Windows, MonitorLiveWindowTest,
    ::testing::Values(AgeCase {-59, 1, true}, AgeCase {-61, 1, false}, AgeCase {59, 1, true}, AgeCase {-89, 4, true},
        AgeCase {-91, 4, false}));

TEST_F(MonitorTest, HeartbeatWhileStoppedChangesNothing)
{
    startMonitor(true);
    m_logAge = -300;
    const qint64 id = m_sim->start(42, QStringLiteral("ENG-1 Earlier"));
    m_sim->stop();
    ASSERT_TRUE(afterChange([&] { m_sim->noise(1); }));
    ASSERT_EQ(m_monitor->lastKind(), 2);
    const QDateTime started = m_monitor->started();
    const QString description = m_monitor->currentDescription();

    m_logAge = 0;
    ASSERT_TRUE(afterChange([&] {
        m_sim->logLine(
            QStringLiteral("Info"), QStringLiteral("Service timeout, updating activity end time (id: %1)").arg(id));
    }));
    EXPECT_FALSE(m_monitor->liveObserved());
    EXPECT_EQ(m_monitor->started(), started);
    EXPECT_EQ(m_monitor->currentDescription(), description);
}

TEST_F(MonitorTest, TenFileEventsWithinTheDebounceGiveOneScan)
{
    startMonitor(true);
    const int before = m_monitor->scanCount();
    // Each write is delivered before the next one; the whole burst takes a few milliseconds.
    for (int i = 0; i < 10; ++i) {
        m_sim->noise(1);
        QCoreApplication::processEvents();
    }
    ASSERT_TRUE(waitIdle(before + 1));
    testenv::waitFor([] { return false; }, 600);
    EXPECT_EQ(m_monitor->scanCount(), before + 1);
}

TEST_F(MonitorTest, RequestsDuringAScanCollapseIntoOneFollowUp)
{
    startMonitor(true);
    const int scans = m_monitor->scanCount();
    const int reads = m_monitor->sourceReads();
    m_monitor->scan(false);
    m_monitor->scan(false);
    m_monitor->scan(true);
    m_monitor->scan(false);
    ASSERT_TRUE(waitIdle(scans + 2));
    testenv::waitFor([] { return false; }, 200);
    EXPECT_EQ(m_monitor->scanCount(), scans + 2);
    EXPECT_EQ(m_monitor->sourceReads(), reads + 1) << "the follow-up carries the full flag of any request";
}

TEST_F(MonitorTest, RotatedOrTruncatedLogIsReadFromItsLastMiBAsHistory)
{
    startMonitor(true);
    ASSERT_TRUE(afterChange([&] { m_sim->start(42, QStringLiteral("ENG-1 Before")); }));
    ASSERT_TRUE(afterChange([&] { m_sim->stop(); }));
    ASSERT_EQ(m_monitor->lastKind(), 2);
    const QByteArray journaled = journal();

    // A new log whose start line lies before its last MiB: only the description near the end is read.
    ASSERT_TRUE(afterChange([&] {
        m_sim->rotateLog();
        m_sim->logLine(QStringLiteral("Info"), QStringLiteral("Tracking started (project id: 7)"));
        m_sim->appendLog(QByteArray(1'100'000, 'n') + '\n');
        m_sim->logLine(QStringLiteral("Info"),
            QStringLiteral("Adding activity description \"OPS-3 After\" for project 7 to storage"));
    }));
    EXPECT_EQ(m_monitor->lastKind(), 2);
    EXPECT_EQ(m_monitor->project(), 42);
    EXPECT_EQ(m_monitor->currentDescription(), QStringLiteral("OPS-3 After"));
    EXPECT_FALSE(m_monitor->liveObserved());

    // Emptied and rewritten: a fresh start line counts as history, not as live.
    ASSERT_TRUE(afterChange([&] {
        m_sim->truncateLog();
        m_sim->logLine(QStringLiteral("Info"), QStringLiteral("Tracking started (project id: 9)"));
        m_sim->logLine(
            QStringLiteral("Info"), QStringLiteral("Service timeout, updating activity end time (id: 999999)"));
    }));
    ASSERT_TRUE(testenv::waitFor([&] { return m_monitor->project() == 9; }));
    EXPECT_EQ(m_monitor->lastKind(), 1);
    EXPECT_FALSE(m_monitor->liveObserved());
    EXPECT_EQ(journal(), journaled) << "history is never journaled";

    // What is written after that is live again.
    ASSERT_TRUE(afterChange(
        [&] { m_sim->logLine(QStringLiteral("Info"), QStringLiteral("Tracking stopped (project id: 9)")); }));
    EXPECT_EQ(m_monitor->lastKind(), 2);
    EXPECT_TRUE(m_monitor->liveObserved());

    // The last MiB of a replaced log may begin exactly at a line; that first line is dropped all the same.
    ASSERT_TRUE(afterChange([&] {
        m_sim->rotateLog();
        const QByteArray cut = '[' + m_sim->timestamp() + "] [1a2c] [Info] Tracking started (project id: 8)\n";
        m_sim->appendLog(cut + QByteArray(1'048'576 - cut.size() - 1, 'n') + '\n');
    }));
    EXPECT_EQ(m_monitor->lastKind(), 2);
    EXPECT_EQ(m_monitor->project(), 9);
}

TEST_F(MonitorTest, OverlongUnterminatedLineIsDroppedWithoutStalling)
{
    startMonitor(true);
    const QByteArray prefix = '[' + m_sim->timestamp() + "] [1a2c] [Info] Tracking started (project id: 99)";
    ASSERT_TRUE(afterChange([&] { m_sim->appendLog(prefix + QByteArray(2 * 1'048'576, 'x')); }));
    EXPECT_EQ(m_monitor->lastKind(), 0);
    ASSERT_TRUE(afterChange([&] {
        // The rest of the dropped line, even where it looks like an event, is not read as one.
        m_sim->appendLog('[' + m_sim->timestamp() + "] [1a2c] [Info] Tracking started (project id: 98)\n");
        m_sim->start(42, QStringLiteral("ENG-2 Next"));
    }));
    ASSERT_TRUE(testenv::waitFor([&] { return m_monitor->lastKind() == 1; }));
    EXPECT_EQ(m_monitor->project(), 42);
    EXPECT_TRUE(m_monitor->liveObserved());
    EXPECT_FALSE(journal().contains("\"project\":99"));
    EXPECT_FALSE(journal().contains("\"project\":98"));
}

// A line the parser cannot convert fails one scan and is never read again: the lines after it, the tracker's
// database and later scans go on. The diagnostic log counts it without its content.
TEST_F(MonitorTest, MalformedLogLineFailsOneScanAndCaptureGoesOn)
{
    DiagnosticLog::setEnabled(true);
    const QByteArray before = trackertest::fileBytes(DiagnosticLog::shared().path(0));
    startMonitor(true);
    ASSERT_TRUE(afterChange([&] {
        m_sim->logLine(QStringLiteral("Info"), QStringLiteral("Tracking started (project id: 99999999999999999999)"));
        m_sim->logLine(QStringLiteral("Info"), QStringLiteral("Tracking stopped (project id: 5)"));
    }));
    EXPECT_EQ(m_monitor->error(),
        QStringLiteral("Source unavailable: number in log line does not fit in 64 bits. Previously captured "
                       "history is retained."));
    EXPECT_EQ(m_monitor->lastKind(), 2);
    EXPECT_EQ(m_monitor->project(), 5);

    ASSERT_TRUE(afterChange([&] { m_sim->start(42, QStringLiteral("ENG-4 After the bad line")); }));
    ASSERT_TRUE(testenv::waitFor([&] { return m_monitor->rows().size() == 1; }));
    EXPECT_TRUE(m_monitor->error().isEmpty()) << m_monitor->error().toStdString();
    EXPECT_EQ(m_monitor->lastKind(), 1);
    EXPECT_EQ(m_monitor->project(), 42);
    EXPECT_TRUE(m_monitor->liveObserved());

    const QByteArray recorded = trackertest::fileBytes(DiagnosticLog::shared().path(0)).mid(before.size());
    EXPECT_EQ(recorded.count("\"event\":\"tracking_unavailable\""), 1) << recorded.constData();
    EXPECT_TRUE(recorded.contains("\"count\":1")) << recorded.constData();
    EXPECT_FALSE(recorded.contains("9999"));
    EXPECT_EQ(recorded.count("tracking_recovered"), 1);
}

TEST_F(MonitorTest, UnreadableSourcesKeepTheRetainedRowsWithTheirStatus)
{
    DiagnosticLog::setEnabled(true);
    // Only this test's transitions count, also when the process runs it again.
    const QByteArray before = trackertest::fileBytes(DiagnosticLog::shared().path(0));
    m_sim->generateHistory(3, 1);
    startMonitor(true);
    ASSERT_EQ(m_monitor->rows().size(), 3);
    ASSERT_TRUE(m_monitor->error().isEmpty());

    // Locked by the tracker.
    m_sim->lock();
    m_monitor->scan(true);
    ASSERT_TRUE(testenv::waitFor([&] { return !m_monitor->error().isEmpty(); }));
    EXPECT_EQ(m_monitor->error(), QStringLiteral("Source unavailable: database is locked. Showing retained history."));
    EXPECT_EQ(m_monitor->rows().size(), 3);
    m_sim->unlock();
    m_monitor->tick();
    ASSERT_TRUE(testenv::waitFor([&] { return m_monitor->error().isEmpty(); }));

    // Deleted.
    ASSERT_TRUE(afterChange([&] { m_sim->deleteDatabase(); }));
    ASSERT_TRUE(testenv::waitFor([&] { return !m_monitor->error().isEmpty(); }));
    EXPECT_EQ(m_monitor->error(),
        QStringLiteral("Source unavailable: unable to open database file. Showing retained history."));
    EXPECT_EQ(m_monitor->rows().size(), 3);

    // Back, as a new file with one new activity: the old rows stay retained.
    ASSERT_TRUE(afterChange([&] {
        m_sim->setAccount(QStringLiteral("2002_activity"));
        m_sim->create();
        m_sim->start(42, QStringLiteral("ENG-5 After restore"));
    }));
    ASSERT_TRUE(testenv::waitFor([&] { return m_monitor->error().isEmpty() && m_monitor->rows().size() == 4; }));

    // The log gone: rows still come from the store.
    ASSERT_TRUE(afterChange([&] { QFile::remove(m_sim->logPath()); }));
    EXPECT_EQ(m_monitor->error(), kLogUnavailable);
    EXPECT_EQ(m_monitor->rows().size(), 4);
    ASSERT_TRUE(afterChange([&] { m_sim->noise(1); }));
    EXPECT_TRUE(m_monitor->error().isEmpty());

    // The store unreadable: the last good rows stay.
    ASSERT_TRUE(QFile::remove(m_store + QStringLiteral("/history.db")));
    ASSERT_TRUE(QDir().mkpath(m_store + QStringLiteral("/history.db")));
    m_monitor->scan(true);
    ASSERT_TRUE(testenv::waitFor([&] { return !m_monitor->error().isEmpty(); }));
    EXPECT_TRUE(m_monitor->error().endsWith(QStringLiteral(". Previously captured history is retained.")))
        << m_monitor->error().toStdString();
    EXPECT_EQ(m_monitor->rows().size(), 4);

    const QByteArray recorded = trackertest::fileBytes(DiagnosticLog::shared().path(0)).mid(before.size());
    EXPECT_EQ(recorded.count("tracking_unavailable"), 4);
    EXPECT_EQ(recorded.count("tracking_recovered"), 3);
}

class MonitorDamagedStoreTest : public MonitorTest, public ::testing::WithParamInterface<bool>
{
};

// Everything in the store came from the tracker's database: a damaged store is set aside (kept), rebuilt at
// once, and the status and the diagnostic log say so once. Garbage is "not a database"; a store whose table
// pages were overwritten is "malformed".
TEST_P(MonitorDamagedStoreTest, DamagedStoreIsSetAsideAndRebuiltFromTheTracker)
{
    const bool garbage = GetParam();
    DiagnosticLog::setEnabled(true);
    const QByteArray before = trackertest::fileBytes(DiagnosticLog::shared().path(0));
    m_sim->generateHistory(300, 1);
    const QString history = m_store + QStringLiteral("/history.db");
    if (!garbage) {
        tracker::saveActivities(QFile::encodeName(history).toStdString(),
            tracker::readActivities(QFile::encodeName(m_sim->databasePath()).toStdString()));
    }
    {
        QFile file(history);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        const qint64 size = std::max<qint64>(file.size(), 65536);
        if (!garbage)
            file.seek(4096); // keep the header and the schema page
        file.write(QByteArray(size - file.pos(), 'x'));
    }
    const QByteArray damaged = trackertest::fileBytes(history);

    startMonitor(true);
    const QString aside = QStringLiteral("history.db.damaged-") + m_clock.wallNow().toString(u"yyyy-MM-dd");
    EXPECT_EQ(m_monitor->error(),
        QStringLiteral("History store was damaged and has been set aside as %1. It was rebuilt from "
                       "Stintwatch's database.")
            .arg(aside));
    EXPECT_EQ(m_monitor->rows().size(), 300);
    EXPECT_EQ(trackertest::fileBytes(m_store + u'/' + aside), damaged) << "the damaged file is kept as it was";

    ASSERT_TRUE(afterChange([&] { m_sim->noise(1); }));
    EXPECT_TRUE(m_monitor->error().isEmpty()) << m_monitor->error().toStdString();
    EXPECT_EQ(m_monitor->rows().size(), 300);

    const QByteArray recorded = trackertest::fileBytes(DiagnosticLog::shared().path(0)).mid(before.size());
    EXPECT_EQ(recorded.count("tracking_unavailable"), 1) << recorded.constData();
    EXPECT_TRUE(recorded.contains(garbage ? "\"error_code\":26" : "\"error_code\":11")) << recorded.constData();
    EXPECT_EQ(recorded.count("tracking_recovered"), 1);
}

INSTANTIATE_TEST_SUITE_P(Damage, MonitorDamagedStoreTest, ::testing::Bool());

TEST_F(MonitorTest, ReplacedDatabaseIsPickedUp)
{
    m_sim->generateHistory(2, 1);
    startMonitor(true);
    ASSERT_EQ(m_monitor->rows().size(), 2);
    m_sim->setAccount(QStringLiteral("2002_activity"));
    ASSERT_TRUE(afterChange([&] { m_sim->replaceDatabase(); }));
    ASSERT_TRUE(afterChange([&] { m_sim->start(77, QStringLiteral("OPS-1 New file")); }));
    ASSERT_TRUE(testenv::waitFor([&] { return m_monitor->rows().size() == 3; }));
    EXPECT_EQ(m_monitor->rows().first().toMap().value(QStringLiteral("issue")).toString(), QStringLiteral("OPS-1"));
    EXPECT_TRUE(m_monitor->error().isEmpty());
}

TEST_F(MonitorTest, TickWakeAndTrackerQuitClearTheLiveState)
{
    startMonitor(true);
    ASSERT_TRUE(afterChange([&] { m_sim->start(42, QStringLiteral("ENG-1 Live")); }));
    ASSERT_TRUE(m_monitor->liveObserved());

    int scans = m_monitor->scanCount();
    m_monitor->wake();
    EXPECT_FALSE(m_monitor->liveObserved());
    ASSERT_TRUE(waitIdle(scans + 1));
    EXPECT_EQ(m_monitor->lastKind(), 1) << "the state itself stays";

    ASSERT_TRUE(afterChange([&] { m_sim->heartbeat(); }));
    ASSERT_TRUE(m_monitor->liveObserved());
    m_running = false; // the tracker quit
    scans = m_monitor->scanCount();
    m_monitor->tick();
    EXPECT_FALSE(m_monitor->liveObserved());
    ASSERT_TRUE(waitIdle(scans + 2)) << "a fallback scan and a full one for the quit";

    // With nothing changed, the fallback scan reads neither the tracker's database nor the store.
    const int sourceReads = m_monitor->sourceReads();
    const int storeReads = m_monitor->storeReads();
    scans = m_monitor->scanCount();
    m_clock.advance(20'000);
    m_monitor->tick();
    ASSERT_TRUE(waitIdle(scans + 1));
    EXPECT_EQ(m_monitor->sourceReads(), sourceReads);
    EXPECT_EQ(m_monitor->storeReads(), storeReads);
    ASSERT_TRUE(afterChange([&] { m_sim->heartbeat(); }));
    EXPECT_EQ(m_monitor->sourceReads(), sourceReads + 1);
    EXPECT_EQ(m_monitor->storeReads(), storeReads + 1);
}

struct TickCase {
    const char *name;
    qint64 monotonicMs; // time that really passed since the last fallback scan
    qint64 wallMs; // how far the wall clock moved meanwhile
    bool scans;
};

class MonitorTickTest : public MonitorTest, public ::testing::WithParamInterface<TickCase>
{
};

// The fallback interval is real elapsed time: a timer firing a little early still scans, and setting the
// clock back or forward neither stops nor floods scanning.
TEST_P(MonitorTickTest, FallbackScanFollowsElapsedTimeNotTheWallClock)
{
    const TickCase c = GetParam();
    startMonitor(true);
    int scans = m_monitor->scanCount();
    m_monitor->tick();
    ASSERT_TRUE(waitIdle(scans + 1)) << "the first tick always scans";

    for (int round = 0; round < 3; ++round) {
        scans = m_monitor->scanCount();
        m_clock.advanceMonotonic(c.monotonicMs);
        m_clock.advanceWall(c.wallMs);
        m_monitor->tick();
        if (c.scans) {
            ASSERT_TRUE(waitIdle(scans + 1)) << c.name << " round " << round;
        } else {
            testenv::waitFor([] { return false; }, 100);
            EXPECT_EQ(m_monitor->scanCount(), scans) << c.name << " round " << round;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Intervals, MonitorTickTest,
    ::testing::Values(TickCase {"tick a little early", 14'990, 14'990, true},
        TickCase {"clock set back an hour", 15'000, 15'000 - 3'600'000, true},
        TickCase {"clock set forward an hour", 4'000, 3'600'000, false}));

// The end of a scan that was running when the monitor stopped would notice the tracker quit (reinstalling
// the watchers and scanning again) and run a waiting follow-up: stop wins over both.
TEST_F(MonitorTest, StopWinsOverAScanInFlight)
{
    startMonitor(true);
    m_running = false;
    m_monitor->scan(true);
    m_monitor->scan(false);
    ASSERT_TRUE(m_monitor->isBusy());
    m_monitor->stop();
    EXPECT_TRUE(m_monitor->watchedPaths().isEmpty());

    ASSERT_TRUE(testenv::waitFor([&] { return !m_monitor->isBusy(); }));
    const int scans = m_monitor->scanCount();
    m_sim->noise(1);
    testenv::waitFor([] { return false; }, 400);
    EXPECT_TRUE(m_monitor->watchedPaths().isEmpty());
    EXPECT_FALSE(m_monitor->isBusy());
    EXPECT_EQ(m_monitor->scanCount(), scans);

    // Started again, it watches and scans as before.
    m_monitor->start();
    ASSERT_TRUE(waitIdle(scans + 1));
    EXPECT_FALSE(m_monitor->watchedPaths().isEmpty());
}

// Where the tracker's process cannot be seen, "not found" is no evidence: ticks and scans leave the live
// state to what the log says, so it does not flicker off every 15 s.
TEST_F(MonitorTest, UnseenTrackerProcessLeavesLivenessToTheLog)
{
    m_processUnknown = true;
    startMonitor(true);
    ASSERT_TRUE(afterChange([&] { m_sim->start(42, QStringLiteral("ENG-1 Live")); }));
    ASSERT_TRUE(m_monitor->liveObserved());
    EXPECT_EQ(m_monitor->trackerProcess(), HLProcessState::Unknown);
    EXPECT_FALSE(m_monitor->stintwatchRunning());

    for (int tick = 0; tick < 3; ++tick) {
        const int scans = m_monitor->scanCount();
        m_clock.advance(15'000);
        m_monitor->tick();
        EXPECT_TRUE(m_monitor->liveObserved()) << "tick " << tick;
        ASSERT_TRUE(waitIdle(scans + 1));
        EXPECT_TRUE(m_monitor->liveObserved()) << "tick " << tick;
    }
    ASSERT_TRUE(afterChange([&] { m_sim->stop(); }));
    EXPECT_EQ(m_monitor->lastKind(), 2);
    m_monitor->wake();
    EXPECT_FALSE(m_monitor->liveObserved()) << "waking still clears it";
}

// A launch is only seen when a scan finds the process; what the tracker logged right after starting must not
// be thrown away by that late notice.
TEST_F(MonitorTest, TrackerThatStartsTrackingAsItLaunchesIsLive)
{
    m_running = false;
    startMonitor(true);
    ASSERT_FALSE(m_monitor->liveObserved());
    m_running = true;
    ASSERT_TRUE(afterChange([&] { m_sim->start(42, QStringLiteral("ENG-3 Resumed at launch")); }));
    ASSERT_TRUE(waitIdle(m_monitor->scanCount()));
    EXPECT_EQ(m_monitor->lastKind(), 1);
    EXPECT_TRUE(m_monitor->liveObserved());
}

TEST_F(MonitorTest, IssueSwitchIsOfferedOnceTwoSecondsAfterTheSwitch)
{
    startMonitor(false);
    TaskSwitchObserver observer;
    QVariantList offers;
    QDateTime switchedAt, offeredAt;
    QTimer settle;
    settle.setSingleShot(true);
    auto observe = [&] {
        const std::string issue = tracker::issue(m_monitor->currentDescription().toStdString());
        const QVariantMap offer = observer.observe(m_monitor->rows(), m_monitor->lastKind() == 1,
            m_monitor->liveObserved(), QString::fromStdString(issue), double(m_monitor->started().toMSecsSinceEpoch()),
            m_monitor->project(), QDateTime::currentDateTime());
        if (!offer.isEmpty()) {
            offers.append(offer);
            offeredAt = QDateTime::currentDateTime();
        }
        if (observer.settlesAt().isValid())
            settle.start(int(std::max<qint64>(0, QDateTime::currentDateTime().msecsTo(observer.settlesAt()))));
    };
    QObject::connect(&settle, &QTimer::timeout, &settle, observe);
    QObject::connect(m_monitor.get(), &StintwatchMonitor::changed, &settle, observe);

    m_sim->start(42, QStringLiteral("ENG-1 First"));
    ASSERT_TRUE(testenv::waitFor([&] { return m_monitor->liveObserved() && m_monitor->rows().size() == 1; }));
    switchedAt = QDateTime::currentDateTime();
    m_sim->switchTo(42, QStringLiteral("ENG-2 Second"));
    // Offered through the settling timer, not the monitor's next 15 s tick.
    ASSERT_TRUE(testenv::waitFor([&] { return !offers.isEmpty(); }, 10000));
    testenv::waitFor([] { return false; }, 1500);

    ASSERT_EQ(offers.size(), 1);
    const QVariantMap offered = offers.first().toMap();
    EXPECT_EQ(offered.value(QStringLiteral("issue")).toString(), QStringLiteral("ENG-1"));
    EXPECT_GT(
        offered.value(QStringLiteral("end_ms")).toLongLong(), offered.value(QStringLiteral("start_ms")).toLongLong());
    EXPECT_GE(switchedAt.msecsTo(offeredAt), 2000);
}

// Rows and summary rows are built from the retained store: every key of the session record, and only what
// the summary periods can need.
TEST_F(MonitorTest, SessionRecordsAndSummaryRowsAreBuiltFromTheStore)
{
    startMonitor(true);
    const std::string db = QFile::encodeName(m_sim->databasePath()).toStdString();
    const qint64 since
        = std::min(TimeSummary::summaryStart(m_clock.wallNow(), 1), TimeSummary::summaryStart(m_clock.wallNow(), 2))
              .toMSecsSinceEpoch();
    const qint64 old = QDateTime(QDate(2024, 3, 5), QTime(19, 8, 9)).toMSecsSinceEpoch();
    const qint64 recent = since + 60'000;
    ASSERT_TRUE(afterChange([&] {
        trackertest::runSql(db,
            QStringLiteral("INSERT INTO \"1001_activity\" VALUES(11,900011,77,%1,%2,'fix abc-12 now',3723,1,%2);"
                           "INSERT INTO \"1001_activity\" VALUES(12,900012,42,%3,%4,X'66FF',60,1,%4);")
                .arg(old)
                .arg(old + 3'723'900)
                .arg(recent)
                .arg(recent + 60'000)
                .toStdString());
    }));
    ASSERT_TRUE(m_monitor->error().isEmpty()) << m_monitor->error().toStdString();
    ASSERT_EQ(m_monitor->rows().size(), 2);

    const QVariantMap expectedOld {{QStringLiteral("date"), QStringLiteral("Mar 5, 19:08:09")},
        {QStringLiteral("issue"), QStringLiteral("ABC-12")},
        {QStringLiteral("description"), QStringLiteral("fix abc-12 now")},
        {QStringLiteral("duration"), QStringLiteral("1:02:03")}, {QStringLiteral("start_ms"), old},
        {QStringLiteral("end_ms"), old + 3'723'900}, {QStringLiteral("local_id"), qint64(11)},
        {QStringLiteral("api_id"), qint64(900011)}, {QStringLiteral("project"), qint64(77)},
        {QStringLiteral("source_seconds"), qint64(3723)},
        {QStringLiteral("source_account"), QStringLiteral("1001_activity")}};
    EXPECT_EQ(m_monitor->rows().at(1).toMap(), expectedOld);
    const QVariantMap newest = m_monitor->rows().at(0).toMap();
    EXPECT_EQ(newest.value(QStringLiteral("issue")).toString(), QStringLiteral("Unassigned"));
    EXPECT_EQ(newest.value(QStringLiteral("description")).toString(), QStringLiteral("(invalid text)"));
    EXPECT_EQ(newest.value(QStringLiteral("duration")).toString(), QStringLiteral("0:01:00"));
    EXPECT_EQ(m_monitor->currentDescription(), QStringLiteral("(invalid text)"))
        << "without a description from the log the newest row's is shown";

    const QVariantList summary {QVariantMap {{QStringLiteral("project"), qint64(42)},
        {QStringLiteral("start_ms"), recent}, {QStringLiteral("end_ms"), recent + 60'000}}};
    EXPECT_EQ(m_monitor->summaryRows(), summary);
}

// A heartbeat takes the interval from the active record with that id that changed last, in any account, and
// only when that record began before the heartbeat.
TEST_F(MonitorTest, HeartbeatTakesTheActiveRecordItExtends)
{
    startMonitor(true);
    const std::string db = QFile::encodeName(m_sim->databasePath()).toStdString();
    const qint64 nowMs = m_clock.wallMs();
    const qint64 begun = nowMs - 600'000;
    m_logAge = -600;
    ASSERT_TRUE(afterChange([&] {
        m_sim->logLine(QStringLiteral("Info"), QStringLiteral("Tracking started (project id: 42)"));
        m_sim->logLine(QStringLiteral("Info"),
            QStringLiteral("Adding activity description \"ENG-9 From the log\" for project 42 to storage"));
    }));
    ASSERT_EQ(m_monitor->lastKind(), 1);
    ASSERT_FALSE(m_monitor->liveObserved());

    m_logAge = 0;
    auto heartbeat = [&](const QString &sql) {
        return afterChange([&] {
            trackertest::runSql(db, sql.toStdString());
            m_sim->logLine(
                QStringLiteral("Info"), QStringLiteral("Service timeout, updating activity end time (id: 500)"));
        });
    };
    ASSERT_TRUE(heartbeat(QString::fromStdString(trackertest::accountTable("\"2002_activity\""))
        + QStringLiteral("INSERT INTO \"2002_activity\" VALUES(500,1,77,%1,0,'OPS-1 Inactive',0,0,%2);"
                         "INSERT INTO \"1001_activity\" VALUES(500,2,43,%3,0,'',0,1,%4);")
              .arg(nowMs - 300'000)
              .arg(nowMs)
              .arg(begun)
              .arg(nowMs - 10'000)));
    EXPECT_TRUE(m_monitor->liveObserved());
    EXPECT_EQ(m_monitor->started().toMSecsSinceEpoch(), begun);
    EXPECT_EQ(m_monitor->project(), 43);
    EXPECT_EQ(m_monitor->currentDescription(), QStringLiteral("ENG-9 From the log")) << "an empty one is not taken";

    // A record that claims to begin after the heartbeat does not belong to it.
    ASSERT_TRUE(heartbeat(QStringLiteral("UPDATE \"1001_activity\" SET startTime=%1, projectId=44, "
                                         "description='ENG-10 Later' WHERE id=500;")
                              .arg(nowMs + 30'000)));
    EXPECT_EQ(m_monitor->started().toMSecsSinceEpoch(), begun);
    EXPECT_EQ(m_monitor->project(), 43);
    EXPECT_EQ(m_monitor->currentDescription(), QStringLiteral("ENG-9 From the log"));
}

// A store that was removed while the monitor ran is filled again with everything, not only with what changed.
TEST_F(MonitorTest, RemovedStoreGetsEveryActivityBackAtTheNextRead)
{
    m_sim->generateHistory(5, 1);
    startMonitor(true);
    ASSERT_TRUE(QFile::remove(m_store + QStringLiteral("/history.db")));
    ASSERT_TRUE(afterChange([&] {
        trackertest::runSql(QFile::encodeName(m_sim->databasePath()).toStdString(),
            "UPDATE \"1001_activity\" SET lastChanged=" + std::to_string(m_clock.wallMs()) + " WHERE id=2;");
    }));
    EXPECT_EQ(m_monitor->rows().size(), 5);
}

struct PartialReadCase {
    const char *name;
    const char *before; // run in a scan of its own first; %1: the monitor's now in ms
    const char *sql; // %1 as above
    int heartbeat; // the activity a heartbeat in the same scan names; 0: none
    qint64 foundAfterMs; // 0: at once; else found by a scan of heartbeats alone this much later, not before
};

class MonitorPartialReadTest : public MonitorTest, public ::testing::WithParamInterface<PartialReadCase>
{
};

// Between full reads only rows that can have changed are read: new rows, rows the log's heartbeats name, and
// (at once when the log shows more than heartbeats, else once a minute) rows stamped since the last read. A
// back-dated edit waits for the next full read.
TEST_P(MonitorPartialReadTest, ChangedRowsAreFoundBetweenFullReads)
{
    const PartialReadCase c = GetParam();
    m_sim->generateHistory(5, 1);
    startMonitor(true);
    const auto described = [&](const QString &description) {
        return std::any_of(m_monitor->rows().cbegin(), m_monitor->rows().cend(),
            [&](const QVariant &row) { return row.toMap().value(QStringLiteral("description")) == description; });
    };
    ASSERT_EQ(m_monitor->rows().size(), 5);
    const auto run = [&](const char *sql, int heartbeat) {
        trackertest::runSql(QFile::encodeName(m_sim->databasePath()).toStdString(),
            QString::fromLatin1(sql).replace(QStringLiteral("%1"), QString::number(m_clock.wallMs())).toStdString());
        if (heartbeat)
            m_sim->logLine(QStringLiteral("Info"),
                QStringLiteral("Service timeout, updating activity end time (id: %1)").arg(heartbeat));
    };
    if (*c.before) {
        ASSERT_TRUE(afterChange([&] { run(c.before, 0); }));
    }
    ASSERT_TRUE(afterChange([&] { run(c.sql, c.heartbeat); }));
    EXPECT_EQ(described(QStringLiteral("ENG-9 Changed")), c.foundAfterMs == 0) << c.name;
    if (c.foundAfterMs == 0)
        return;

    // The running activity's end moves and the log names it, and nothing else happens.
    const char *beat = "UPDATE \"1001_activity\" SET seconds=seconds+1, lastChanged=%1 WHERE id=4;";
    m_clock.advance(c.foundAfterMs - 1'000);
    ASSERT_TRUE(afterChange([&] { run(beat, 4); }));
    EXPECT_FALSE(described(QStringLiteral("ENG-9 Changed"))) << c.name;
    m_clock.advance(1'000);
    ASSERT_TRUE(afterChange([&] { run(beat, 4); }));
    EXPECT_TRUE(described(QStringLiteral("ENG-9 Changed"))) << c.name;
}

INSTANTIATE_TEST_SUITE_P(Rows, MonitorPartialReadTest,
    ::testing::Values(PartialReadCase {"new row, stamped long ago", "",
                          "INSERT INTO \"1001_activity\" VALUES(100,1,42,1000,2000,'ENG-9 Changed',1,1,0);", 0, 0},
        PartialReadCase {"edited row", "",
            "UPDATE \"1001_activity\" SET description='ENG-9 Changed', lastChanged=%1 WHERE id=2;", 0, 0},
        PartialReadCase {"back-dated row named by a heartbeat", "",
            "UPDATE \"1001_activity\" SET description='ENG-9 Changed', lastChanged=0 WHERE id=2;", 2, 0},
        PartialReadCase {"edited row after one stamped a day ahead",
            "UPDATE \"1001_activity\" SET lastChanged=%1+86400000 WHERE id=3;",
            "UPDATE \"1001_activity\" SET description='ENG-9 Changed', lastChanged=%1 WHERE id=2;", 0, 0},
        PartialReadCase {"edit among heartbeats of another activity", "",
            "UPDATE \"1001_activity\" SET description='ENG-9 Changed', lastChanged=%1 WHERE id=2;", 4, 60'000},
        PartialReadCase {"back-dated edit", "",
            "UPDATE \"1001_activity\" SET description='ENG-9 Changed', lastChanged=0 WHERE id=2;", 0, 10 * 60'000}));

} // namespace
