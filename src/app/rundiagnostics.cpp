#include "app/rundiagnostics.h"

#include "source/trackerdb.h"

#include <QFile>
#include <QStandardPaths>
#include <QString>

#include <cstdio>
#include <cstring>
#include <exception>
#include <vector>

namespace
{

// The tracker's database in its default folder. Deliberately no bookmark and no environment override: the
// probe checks what the tracker itself writes.
QString trackerDatabasePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation)
        + QStringLiteral("/Stintwatch/Stintwatch.db");
}

int runProbe()
{
    try {
        const std::vector<tracker::Activity> activities
            = tracker::readActivities(QFile::encodeName(trackerDatabasePath()).toStdString());
        std::printf("Read-only probe: %zu activities across all projects. No credentials read.\n", activities.size());
        return 0;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "Probe failed: %s\n", error.what());
        return 1;
    }
}

int runInvoice(int argc)
{
    if (argc < 3) {
        std::fputs("usage: --invoice <invoice.pdf>\n", stdout);
        return 2;
    }
    // The invoice reader is not part of this build yet; the command says so instead of pretending to read.
    std::fputs("Could not read the invoice: The invoice reader is not available in this build.\n", stdout);
    return 1;
}

int runSmokeTest(const char *command)
{
    std::fprintf(stderr, "%s: the smoke test needs the application shell, which this build does not have.\n", command);
    return 1;
}

} // namespace

int RunDiagnostics(int argc, const char *const *argv)
{
    if (argc < 2 || !argv || !argv[1])
        return -1;
    const char *command = argv[1];
    if (std::strcmp(command, "--probe") == 0)
        return runProbe();
    if (std::strcmp(command, "--invoice") == 0)
        return runInvoice(argc);
    if (std::strcmp(command, "--smoke-test") == 0 || std::strcmp(command, "--jira-smoke-test") == 0)
        return runSmokeTest(command);
    return -1;
}
