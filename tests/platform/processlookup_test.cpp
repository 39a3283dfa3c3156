#include "platform/processlookup.h"

#include "support/testenv.h"

#include <QCoreApplication>
#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

namespace
{

// A name no other process carries: this test process's id and the case.
QString probeName(int index)
{
    return QStringLiteral("hlprobe%1k%2").arg(QCoreApplication::applicationPid()).arg(index);
}

bool makeScript(const QString &path, const QByteArray &text, bool executable)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        return false;
    file.close();
    return !executable || file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

enum class Launch { Copy, Symlink, AppImage, ScriptByShebang, ScriptThroughShell };

class ProcessLaunchTest : public ::testing::TestWithParam<Launch>
{
};

// The tracker started in each of the ways it is installed and launched, as a real child process, is found
// by its name (looked up in upper case: the comparison ignores case) and is gone once it ended.
TEST_P(ProcessLaunchTest, FindsTheProcessHoweverItWasLaunched)
{
    const int index = int(GetParam());
    const QString name = probeName(index);
    const QString dir = testenv::freshDir(QStringLiteral("launch%1").arg(index));
    QString program = dir + u'/' + name;
    QStringList arguments {QStringLiteral("30")};
    switch (GetParam()) {
    case Launch::Copy:
        ASSERT_TRUE(QFile::copy(QStringLiteral("/bin/sleep"), program));
        break;
    case Launch::Symlink:
        ASSERT_TRUE(QFile::link(QStringLiteral("/bin/sleep"), program));
        break;
    case Launch::AppImage:
        program = dir + u'/' + name.at(0).toUpper() + name.mid(1) + QStringLiteral("-2.4.1-x86_64.AppImage");
        ASSERT_TRUE(QFile::copy(QStringLiteral("/bin/sleep"), program));
        break;
    case Launch::ScriptByShebang:
        ASSERT_TRUE(makeScript(program, "#!/bin/sh\nsleep \"$1\"\n", true));
        break;
    case Launch::ScriptThroughShell:
        ASSERT_TRUE(makeScript(program, "sleep \"$1\"\n", false));
        arguments.prepend(program);
        program = QStringLiteral("/bin/sh");
        break;
    }
    const QString wanted = name.toUpper();
    EXPECT_EQ(HLFindProcess(wanted), HLProcessState::NotRunning);

    // In a group of its own, so that ending it also ends what a script forked: a fork caught before its exec
    // still carries the script's command line and would be found after the script itself is gone.
    QProcess child;
    child.setChildProcessModifier([] { ::setpgid(0, 0); });
    child.start(program, arguments);
    ASSERT_TRUE(child.waitForStarted());
    EXPECT_EQ(HLFindProcess(wanted), HLProcessState::Running);
    EXPECT_TRUE(HLProcessRunning(wanted));
    EXPECT_FALSE(HLProcessRunning(wanted + u'x'));
    ::kill(-pid_t(child.processId()), SIGKILL);
    child.waitForFinished();
    EXPECT_EQ(HLFindProcess(wanted), HLProcessState::NotRunning);
}

INSTANTIATE_TEST_SUITE_P(Launches, ProcessLaunchTest,
    ::testing::Values(
        Launch::Copy, Launch::Symlink, Launch::AppImage, Launch::ScriptByShebang, Launch::ScriptThroughShell));

TEST(ProcessLookupTest, RejectsNamesThatAreNotFileNames)
{
    EXPECT_FALSE(HLProcessRunning(QString()));
    EXPECT_FALSE(HLProcessRunning(QStringLiteral("/bin/sleep")));
    EXPECT_EQ(HLFindProcess(QStringLiteral("sleep"), testenv::freshDir(QStringLiteral("noproc")) + u"/x"),
        HLProcessState::Unknown);
}

// Inside the sandbox the process is searched only where the host's processes are visible; elsewhere "not
// found" would be a guess, so the answer is "unknown". The test's own /proc stands in for the host's.
TEST(ProcessLookupTest, InsideTheSandboxOnlyAVisibleHostProcDecides)
{
    const QString name = probeName(9);
    const QString program = testenv::freshDir(QStringLiteral("sandbox")) + u'/' + name;
    ASSERT_TRUE(QFile::copy(QStringLiteral("/bin/sleep"), program));
    const QString missing = testenv::home() + QStringLiteral("/no-host-proc");
    QProcess child;
    child.start(program, {QStringLiteral("30")});
    ASSERT_TRUE(child.waitForStarted());

    EXPECT_EQ(HLLookupProcess(name, false, {}), HLProcessState::Running);
    EXPECT_EQ(HLLookupProcess(name, true, {}), HLProcessState::Unknown);
    EXPECT_EQ(HLLookupProcess(name, true, {missing}), HLProcessState::Unknown);
    EXPECT_EQ(HLLookupProcess(name, true, {missing, QStringLiteral("/proc")}), HLProcessState::Running);
    child.kill();
    child.waitForFinished();
    EXPECT_EQ(HLLookupProcess(name, true, {QStringLiteral("/proc")}), HLProcessState::NotRunning);
    EXPECT_EQ(HLLookupProcess(name, true, {missing}), HLProcessState::Unknown);
    EXPECT_EQ(HLLookupProcess(name, false, {}), HLProcessState::NotRunning);
}

} // namespace
