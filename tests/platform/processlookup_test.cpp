#include "platform/processlookup.h"

#include "support/testenv.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

namespace
{

TEST(ProcessLookupTest, FindsARunningExecutableByNameIgnoringCase)
{
    const QString name = QStringLiteral("hlprobe%1").arg(QCoreApplication::applicationPid());
    const QString copy = testenv::freshDir(QStringLiteral("probe")) + u'/' + name;
    ASSERT_TRUE(QFile::copy(QStringLiteral("/bin/sleep"), copy));
    const QString upper = name.toUpper();
    EXPECT_FALSE(HLProcessRunning(upper));

    QProcess child;
    child.start(copy, {QStringLiteral("30")});
    ASSERT_TRUE(child.waitForStarted());
    EXPECT_TRUE(HLProcessRunning(upper));
    EXPECT_FALSE(HLProcessRunning(upper + u'x'));
    child.kill();
    child.waitForFinished();
    EXPECT_FALSE(HLProcessRunning(upper));
    EXPECT_FALSE(HLProcessRunning(QString()));
    EXPECT_FALSE(HLProcessRunning(QStringLiteral("/bin/sleep")));
}

} // namespace
