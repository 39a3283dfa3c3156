#include "support/testenv.h"

#include <QDir>
#include <QProcess>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace
{

int runSimTracker(const QStringList &arguments)
{
    QProcess tool;
    tool.start(QStringLiteral(HOURLOOM_SIMTRACKER), arguments);
    if (!tool.waitForFinished(30000))
        return -1;
    return tool.exitStatus() == QProcess::NormalExit ? tool.exitCode() : -1;
}

TEST(SimTrackerToolTest, TouchesTheRealTrackerFolderOnlyWhenToldTo)
{
    const QString real = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + u"/Stintwatch";
    ASSERT_TRUE(real.startsWith(testenv::home()));
    QDir(real).removeRecursively(); // another test of this process may have made one
    EXPECT_EQ(runSimTracker({QStringLiteral("--folder"), real, QStringLiteral("init")}), 2);
    EXPECT_FALSE(QDir(real).exists());
    EXPECT_EQ(runSimTracker({QStringLiteral("init")}), 2) << "a folder is always required";
    EXPECT_EQ(runSimTracker(
                  {QStringLiteral("--folder"), real, QStringLiteral("--allow-real-folder"), QStringLiteral("init")}),
        0);
    EXPECT_TRUE(QFile::exists(real + u"/Stintwatch.db"));
}

TEST(SimTrackerToolTest, ScriptDrivesASession)
{
    const QString folder = testenv::freshDir(QStringLiteral("scripted"));
    const QString script = folder + u"/session.txt";
    QFile file(script);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("# a short session\ninit\nstart 42 \"ENG-9 Scripted work\"\nheartbeat\nstop\n");
    file.close();
    ASSERT_EQ(runSimTracker({QStringLiteral("--folder"), folder, QStringLiteral("script"), script}), 0);

    QFile log(folder + u"/application.log");
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QByteArray text = log.readAll();
    EXPECT_TRUE(text.contains("[Info] Tracking started (project id: 42)\n"));
    EXPECT_TRUE(
        text.contains("[Info] Adding activity description \"ENG-9 Scripted work\" for project 42 to storage\n"));
    EXPECT_TRUE(text.contains("[Info] Service timeout, updating activity end time (id: 1)\n"));
    EXPECT_TRUE(text.contains("[Info] Tracking stopped (project id: 42)\n"));
}

} // namespace
