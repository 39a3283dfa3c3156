#include "app/rundiagnostics.h"
#include "support/testenv.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <gtest/gtest.h>

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

} // namespace

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

TEST(CommandLine, UnknownOrAbsentArgumentsStartTheApplication)
{
    for (const QStringList &arguments : {QStringList {}, QStringList {QStringLiteral("--probe-x")},
             QStringList {QStringLiteral("--help")}, QStringList {QStringLiteral("probe")}}) {
        const QString home = testenv::freshDir(QStringLiteral("home"));
        const Outcome run = runHourloom(arguments, home);
        EXPECT_EQ(run.exitCode, 0) << arguments.join(QLatin1Char(' ')).toStdString();
        EXPECT_EQ(run.out, QString());
        EXPECT_EQ(run.err, QString());
        // Starting prepares the support folder.
        EXPECT_TRUE(QFileInfo(home + QStringLiteral("/.local/share/Hourloom")).isDir());
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
        QStringLiteral("Could not read the invoice: The invoice reader is not available in this build.\n"));
    // A diagnostic command never starts the application.
    EXPECT_FALSE(QFileInfo::exists(home + QStringLiteral("/.local/share/Hourloom")));
}

TEST(CommandLine, SmokeTestsSayTheyNeedTheApplicationShell)
{
    const QString home = testenv::freshDir(QStringLiteral("home"));
    for (const QString &word : {QStringLiteral("--smoke-test"), QStringLiteral("--jira-smoke-test")}) {
        const Outcome run = runHourloom({word}, home);
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_EQ(run.out, QString());
        EXPECT_TRUE(run.err.startsWith(word + QStringLiteral(": ")));
        EXPECT_TRUE(run.err.contains(QStringLiteral("application shell")));
        EXPECT_EQ(run.err.count(QLatin1Char('\n')), 1);
    }
}
