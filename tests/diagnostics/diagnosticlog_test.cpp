#include "diagnostics/diagnosticlog.h"

#include "platform/clock.h"
#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <thread>
#include <vector>

namespace
{

constexpr qint64 kThreshold = 262144;

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ASSERT_EQ(file.write(data), data.size());
}

mode_t modeOf(const QString &path)
{
    struct stat info {
    };
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return 0;
    return info.st_mode & 07777;
}

QList<QByteArray> linesOf(const QString &path)
{
    QList<QByteArray> lines = readFile(path).split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

class DiagnosticLogTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QSettings().remove(QStringLiteral("SaveDiagnosticLogs"));
        m_dir = testenv::freshDir(QStringLiteral("diag"));
    }
    void TearDown() override { QSettings().remove(QStringLiteral("SaveDiagnosticLogs")); }

    QString m_dir;
};

} // namespace

TEST(DiagnosticFilter, KeepsOnlyKnownEventsAndFiniteNumbersUnderKnownKeys)
{
    EXPECT_TRUE(DiagnosticLog::safeEvent(QStringLiteral("app_start"), {}).isEmpty());
    EXPECT_TRUE(DiagnosticLog::safeEvent(QString(), {}).isEmpty());
    EXPECT_EQ(DiagnosticLog::safeEvent(QStringLiteral("app_started"), {}),
        (QVariantMap {{QStringLiteral("event"), QStringLiteral("app_started")}}));

    const QVariantMap values {
        {QStringLiteral("duration_ms"), 0},
        {QStringLiteral("http_status"), -3},
        {QStringLiteral("error_code"), QStringLiteral("401")},
        {QStringLiteral("count"), std::numeric_limits<double>::infinity()},
        {QStringLiteral("failed"), std::numeric_limits<double>::quiet_NaN()},
        {QStringLiteral("issue"), 7},
        {QStringLiteral("url"), QStringLiteral("https://example.atlassian.net")},
    };
    const QVariantMap filtered = DiagnosticLog::safeEvent(QStringLiteral("network_failed"), values);
    EXPECT_EQ(filtered,
        (QVariantMap {{QStringLiteral("event"), QStringLiteral("network_failed")}, {QStringLiteral("duration_ms"), 0},
            {QStringLiteral("http_status"), -3}}));

    const QVariantMap odd {
        {QStringLiteral("count"), QVariantMap {{QStringLiteral("n"), 1}}},
        {QStringLiteral("failed"), true},
        {QStringLiteral("duration_ms"), -std::numeric_limits<double>::infinity()},
        {QStringLiteral("error_code"), 12.5},
    };
    EXPECT_EQ(DiagnosticLog::safeEvent(QStringLiteral("jira_post_completed"), odd),
        (QVariantMap {{QStringLiteral("event"), QStringLiteral("jira_post_completed")},
            {QStringLiteral("failed"), true}, {QStringLiteral("error_code"), 12.5}}));
}

TEST(DiagnosticFolder, FollowsTheOverrideUnlessEmptyElseTheStateFolder)
{
    const QByteArray state = qgetenv("XDG_STATE_HOME");
    EXPECT_EQ(DiagnosticLog::sharedDirectory(), QString::fromUtf8(state) + QStringLiteral("/Hourloom"));
    qputenv("HOURLOOM_DIAGNOSTICS_DIR", "");
    EXPECT_EQ(DiagnosticLog::sharedDirectory(), QString::fromUtf8(state) + QStringLiteral("/Hourloom"));
    qputenv("HOURLOOM_DIAGNOSTICS_DIR", "/tmp/elsewhere");
    EXPECT_EQ(DiagnosticLog::sharedDirectory(), QStringLiteral("/tmp/elsewhere"));
    qunsetenv("HOURLOOM_DIAGNOSTICS_DIR");
    qunsetenv("XDG_STATE_HOME");
    EXPECT_EQ(DiagnosticLog::sharedDirectory(), QDir::homePath() + QStringLiteral("/.local/state/Hourloom"));
    qputenv("XDG_STATE_HOME", state);
}

TEST_F(DiagnosticLogTest, RecordsFilteredLinesInPrivateFilesAndFolders)
{
    const QString folder = m_dir + QStringLiteral("/a/b");
    DiagnosticLog log(folder);
    EXPECT_EQ(log.path(2), folder + QStringLiteral("/diagnostics-2.jsonl"));
    const TestClock clock(QDateTime::fromMSecsSinceEpoch(1774000000250));
    log.setClock(&clock);
    log.record(QStringLiteral("jira_compare_completed"),
        {{QStringLiteral("count"), 4}, {QStringLiteral("failed"), true},
            {QStringLiteral("description"), QStringLiteral("secret task")}});
    log.record(QStringLiteral("not_an_event"), {{QStringLiteral("count"), 1}});

    const QList<QByteArray> lines = linesOf(log.path(0));
    ASSERT_EQ(lines.size(), 1);
    const QJsonObject object = QJsonDocument::fromJson(lines.first()).object();
    EXPECT_EQ(object.value(QStringLiteral("event")).toString(), QStringLiteral("jira_compare_completed"));
    EXPECT_EQ(object.value(QStringLiteral("count")).toInt(), 4);
    EXPECT_EQ(object.value(QStringLiteral("failed")), QJsonValue(true));
    EXPECT_DOUBLE_EQ(object.value(QStringLiteral("time")).toDouble(), 1774000000.25);
    EXPECT_EQ(object.size(), 4);
    EXPECT_FALSE(lines.first().contains("secret"));

    EXPECT_EQ(modeOf(log.path(0)), mode_t(0600));
    EXPECT_EQ(modeOf(folder), mode_t(0700));
    EXPECT_EQ(modeOf(m_dir + QStringLiteral("/a")), mode_t(0700));
}

TEST_F(DiagnosticLogTest, RotatesOverThreeFilesExactlyAtTheThreshold)
{
    DiagnosticLog log(m_dir);
    const TestClock clock(QDateTime::fromMSecsSinceEpoch(1774000000500));
    log.setClock(&clock);
    // The length of one record, measured by writing one into a scratch log with the same clock.
    DiagnosticLog probe(testenv::freshDir(QStringLiteral("probe")));
    probe.setClock(&clock);
    probe.record(QStringLiteral("app_started"));
    const qint64 recordLength = linesOf(probe.path(0)).value(0).size();
    ASSERT_GT(recordLength, 20);

    // One byte short of the threshold: the record joins file 0.
    writeFile(log.path(0), QByteArray(kThreshold - recordLength - 1, 'x'));
    writeFile(log.path(1), "one\n");
    writeFile(log.path(2), "two\n");
    log.record(QStringLiteral("app_started"));
    EXPECT_EQ(QFileInfo(log.path(0)).size(), kThreshold);
    EXPECT_EQ(readFile(log.path(1)), QByteArray("one\n"));

    // Exactly at the threshold: the files move down first, the oldest is dropped, the record starts file 0.
    writeFile(log.path(0), QByteArray(kThreshold - recordLength, 'y'));
    log.record(QStringLiteral("app_started"));
    EXPECT_EQ(readFile(log.path(0)), linesOf(probe.path(0)).value(0) + '\n');
    EXPECT_EQ(readFile(log.path(1)), QByteArray(kThreshold - recordLength, 'y'));
    EXPECT_EQ(readFile(log.path(2)), QByteArray("one\n"));
    EXPECT_FALSE(QFile::exists(log.path(3)));
    EXPECT_EQ(modeOf(log.path(0)), mode_t(0600));
}

TEST_F(DiagnosticLogTest, DisabledWritesNothingButStillReports)
{
    DiagnosticLog log(m_dir);
    log.record(QStringLiteral("tracking_unavailable"));
    ASSERT_EQ(linesOf(log.path(0)).size(), 1);

    DiagnosticLog::setEnabled(false);
    EXPECT_EQ(QSettings().value(QStringLiteral("SaveDiagnosticLogs")), QVariant(false));
    EXPECT_FALSE(DiagnosticLog::enabled());
    log.record(QStringLiteral("tracking_recovered"));
    EXPECT_EQ(linesOf(log.path(0)).size(), 1);

    const QString report = log.report();
    EXPECT_TRUE(report.contains(QStringLiteral("Saving diagnostic logs: disabled\n\n")));
    EXPECT_TRUE(report.contains(QStringLiteral("\"event\":\"tracking_unavailable\"")));
    EXPECT_FALSE(report.contains(QStringLiteral("tracking_recovered")));

    DiagnosticLog::setEnabled(true);
    EXPECT_TRUE(log.report().contains(QStringLiteral("Saving diagnostic logs: enabled\n\n")));
}

TEST_F(DiagnosticLogTest, ReportRefiltersHandEditedFilesOldestFirst)
{
    DiagnosticLog log(m_dir);
    writeFile(log.path(2),
        "{\"event\":\"app_started\",\"time\":100.5,\"token\":\"abc\",\"count\":2}\n"
        "{\"event\":\"network_failed\",\"time\":\"yesterday\",\"http_status\":{\"nested\":1},"
        "\"error_code\":\"EHOST\",\"duration_ms\":[1,2],\"failed\":-1}\n"
        "{\"event\":\"description\",\"time\":1,\"count\":1}\n"
        "{\"event\":[\"app_started\"],\"time\":1}\n"
        "not json at all\n"
        "[1,2,3]\n");
    // File 1 is not valid UTF-8: its well-formed line is left out with the rest of the file.
    writeFile(
        log.path(1), QByteArray("{\"event\":\"jira_post_completed\",\"time\":200,\"count\":3}\n") + '\xff' + "\n");
    writeFile(log.path(0),
        "{\"event\":\"jira_compare_completed\",\"time\":250,\"count\":0,\"failed\":true}\n"
        "{\"event\":\"tracking_recovered\",\"time\":300}");

    const QString report = log.report();
    const QString header = report.section(QStringLiteral("\n\n"), 0, 0);
    EXPECT_TRUE(header.startsWith(QStringLiteral("Hourloom diagnostics\nVersion: ")));
    EXPECT_EQ(header.count(QLatin1Char('\n')), 2);
    EXPECT_EQ(report.section(QStringLiteral("\n\n"), 1, 1), QStringLiteral("Saving diagnostic logs: enabled"));

    const QString body = report.section(QStringLiteral("\n\n"), 2);
    EXPECT_EQ(body,
        QStringLiteral("{\"count\":2,\"event\":\"app_started\",\"time\":100.5}\n"
                       "{\"event\":\"network_failed\",\"failed\":-1}\n"
                       "{\"count\":0,\"event\":\"jira_compare_completed\",\"failed\":true,\"time\":250}\n"
                       "{\"event\":\"tracking_recovered\",\"time\":300}\n"));
}

TEST_F(DiagnosticLogTest, ReportSkipsAFileOverTheSizeLimit)
{
    DiagnosticLog log(m_dir);
    const QByteArray line = "{\"event\":\"app_started\",\"time\":1}\n";
    QByteArray big;
    while (big.size() <= kThreshold)
        big += line;
    writeFile(log.path(1), big);
    QByteArray atLimit = line.repeated(int(kThreshold / line.size()));
    atLimit += QByteArray(kThreshold - atLimit.size(), '\n');
    ASSERT_EQ(atLimit.size(), kThreshold);
    writeFile(log.path(0), atLimit);

    // Something that is not a regular file in place of file 2 is skipped too, not read without end.
    ASSERT_EQ(::symlink("/dev/zero", QFile::encodeName(log.path(2)).constData()), 0);

    const QString body = log.report().section(QStringLiteral("\n\n"), 2);
    // Only file 0 (exactly at the limit) is read.
    EXPECT_EQ(body.count(QStringLiteral("app_started")), atLimit.count("app_started"));
    EXPECT_LT(body.count(QStringLiteral("app_started")), big.count("app_started"));
}

TEST_F(DiagnosticLogTest, DeletesInOrderAndStopsAtAFileThatCannotBeRemoved)
{
    DiagnosticLog log(m_dir);
    QString error;
    EXPECT_TRUE(log.deleteLogs(&error)); // nothing there is no error
    EXPECT_TRUE(error.isEmpty());

    writeFile(log.path(0), "a\n");
    writeFile(log.path(2), "c\n");
    // A non-empty folder where file 1 should be cannot be unlinked, even by root.
    ASSERT_TRUE(QDir().mkpath(log.path(1) + QStringLiteral("/inner")));
    EXPECT_FALSE(log.deleteLogs(&error));
    EXPECT_TRUE(error.contains(QStringLiteral("diagnostics-1.jsonl")));
    EXPECT_FALSE(QFile::exists(log.path(0)));
    EXPECT_TRUE(QFile::exists(log.path(2)));

    ASSERT_TRUE(QDir(log.path(1)).removeRecursively());
    EXPECT_TRUE(log.deleteLogs(&error));
    EXPECT_FALSE(QFile::exists(log.path(2)));
}

TEST_F(DiagnosticLogTest, AFolderThatCannotBeCreatedLosesTheRecordQuietly)
{
    const QString blocker = m_dir + QStringLiteral("/plain-file");
    writeFile(blocker, "x");
    DiagnosticLog log(blocker + QStringLiteral("/logs"));
    log.record(QStringLiteral("app_started"));
    EXPECT_FALSE(QFile::exists(log.path(0)));
    EXPECT_EQ(readFile(blocker), QByteArray("x"));
    EXPECT_TRUE(log.report().endsWith(QStringLiteral("Saving diagnostic logs: enabled\n\n")));
}

TEST_F(DiagnosticLogTest, RecordsFromManyThreadsNeverInterleave)
{
    DiagnosticLog log(m_dir);
    constexpr int kThreads = 6;
    constexpr int kEach = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < kEach; ++i)
                log.record(QStringLiteral("network_completed"),
                    {{QStringLiteral("duration_ms"), t * 100000 + i}, {QStringLiteral("http_status"), 200}});
        });
    }
    // Toggling the setting from another thread must not tear a record either.
    for (int i = 0; i < 20; ++i)
        DiagnosticLog::setEnabled(true);
    for (auto &thread : threads)
        thread.join();

    QList<QByteArray> lines;
    for (int index = 2; index >= 0; --index)
        lines += linesOf(log.path(index));
    ASSERT_EQ(lines.size(), kThreads * kEach);
    QSet<int> seen;
    for (const QByteArray &line : lines) {
        const QJsonDocument document = QJsonDocument::fromJson(line);
        ASSERT_TRUE(document.isObject()) << line.constData();
        seen.insert(document.object().value(QStringLiteral("duration_ms")).toInt());
    }
    EXPECT_EQ(seen.size(), kThreads * kEach);
}

TEST_F(DiagnosticLogTest, NeverWritesThroughALinkInPlaceOfTheCurrentFile)
{
    DiagnosticLog log(m_dir);
    const QString elsewhere = m_dir + QStringLiteral("/elsewhere.txt");
    writeFile(elsewhere, "keep\n");
    ASSERT_EQ(::symlink(QFile::encodeName(elsewhere).constData(), QFile::encodeName(log.path(0)).constData()), 0);
    log.record(QStringLiteral("app_started"));
    EXPECT_EQ(readFile(elsewhere), QByteArray("keep\n"));
}
