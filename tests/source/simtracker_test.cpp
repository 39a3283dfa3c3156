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

} // namespace
