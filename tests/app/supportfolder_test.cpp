#include "app/supportfolder.h"
#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

void writeFile(const QString &path, const QByteArray &data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(data);
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

ino_t inodeOf(const QString &path)
{
    struct stat info {
    };
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_ino : 0;
}

// Points the data location at a fresh folder for one test.
class SupportFolderTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_previous = qgetenv("XDG_DATA_HOME");
        m_data = testenv::freshDir(QStringLiteral("data"));
        qputenv("XDG_DATA_HOME", QFile::encodeName(m_data));
    }
    void TearDown() override { qputenv("XDG_DATA_HOME", m_previous); }

    QString former() const { return m_data + QStringLiteral("/Stintwatch Companion"); }
    QString support() const { return m_data + QStringLiteral("/Hourloom"); }

    QByteArray m_previous;
    QString m_data;
};

} // namespace

TEST_F(SupportFolderTest, MovesTheFormerFolderInOneRenameWhenItIsAlone)
{
    writeFile(former() + QStringLiteral("/history.db"), "history");
    writeFile(former() + QStringLiteral("/nested/jira-receipts.json"), "{}");
    const ino_t inode = inodeOf(former());

    EXPECT_EQ(SupportFolder::prepare(), support());
    EXPECT_FALSE(QFileInfo::exists(former()));
    EXPECT_EQ(readFile(support() + QStringLiteral("/history.db")), QByteArray("history"));
    EXPECT_EQ(readFile(support() + QStringLiteral("/nested/jira-receipts.json")), QByteArray("{}"));
    EXPECT_EQ(inodeOf(support()), inode); // moved, not copied

    // Only once: a later former folder stays where it is.
    writeFile(former() + QStringLiteral("/history.db"), "later");
    SupportFolder::prepare();
    EXPECT_EQ(readFile(support() + QStringLiteral("/history.db")), QByteArray("history"));
    EXPECT_EQ(readFile(former() + QStringLiteral("/history.db")), QByteArray("later"));
}

TEST_F(SupportFolderTest, AnExistingSupportFolderWins)
{
    writeFile(former() + QStringLiteral("/history.db"), "old");
    writeFile(support() + QStringLiteral("/history.db"), "new");
    SupportFolder::prepare();
    EXPECT_EQ(readFile(former() + QStringLiteral("/history.db")), QByteArray("old"));
    EXPECT_EQ(readFile(support() + QStringLiteral("/history.db")), QByteArray("new"));
    EXPECT_FALSE(QFileInfo::exists(support() + QStringLiteral("/Stintwatch Companion")));
}

TEST_F(SupportFolderTest, ASandboxedProcessNeverMoves)
{
    writeFile(former() + QStringLiteral("/history.db"), "old");
    QString error;
    EXPECT_TRUE(SupportFolder::moveFormer(former(), support(), true, &error));
    EXPECT_TRUE(QFileInfo::exists(former() + QStringLiteral("/history.db")));
    EXPECT_FALSE(QFileInfo::exists(support()));
}

TEST_F(SupportFolderTest, WithoutAFormerFolderStartsWithAnEmptyPrivateFolder)
{
    SupportFolder::prepare();
    EXPECT_TRUE(QFileInfo(support()).isDir());
    EXPECT_TRUE(QDir(support()).isEmpty());
    struct stat info {
    };
    ASSERT_EQ(::stat(QFile::encodeName(support()).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, mode_t(0700));
}

TEST_F(SupportFolderTest, AFailedMoveIsReportedAndLosesNothing)
{
    writeFile(former() + QStringLiteral("/history.db"), "keep me");
    // A dangling link where the support folder goes: it does not exist, yet a folder cannot be renamed onto
    // it. This fails for root too, unlike a folder without write permission.
    ASSERT_EQ(::symlink("/nonexistent/hourloom", QFile::encodeName(support()).constData()), 0);

    QString error;
    EXPECT_FALSE(SupportFolder::moveFormer(former(), support(), false, &error));
    EXPECT_FALSE(error.isEmpty());
    EXPECT_EQ(readFile(former() + QStringLiteral("/history.db")), QByteArray("keep me"));

    // The program itself writes the line and carries on starting, until it finds that it has no place for
    // its history: it then says so in an alert, and a session that ends closes it.
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_DATA_HOME"), m_data);
    const QString runtime = testenv::freshDir(QStringLiteral("run"));
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime);
    process.setProcessEnvironment(environment);
    process.start(testenv::hourloomBinary(), {});
    const QString line = QStringLiteral("Hourloom: could not migrate history from %1: %2\n").arg(former(), error);
    QString stderrText;
    ASSERT_TRUE(testenv::waitFor(
        [&] {
            stderrText += QString::fromUtf8(process.readAllStandardError());
            return stderrText.contains(line);
        },
        30000))
        << stderrText.toStdString();
    ::kill(pid_t(process.processId()), SIGTERM);
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 1);
    // The line is the program's first and only word on it (the display plug-in may add its own).
    stderrText += QString::fromUtf8(process.readAllStandardError());
    EXPECT_TRUE(stderrText.startsWith(line)) << stderrText.toStdString();
    EXPECT_EQ(stderrText.count(QStringLiteral("Hourloom:")), 1);
    EXPECT_TRUE(process.readAllStandardOutput().isEmpty());
    EXPECT_EQ(readFile(former() + QStringLiteral("/history.db")), QByteArray("keep me"));
}
