#include "app/rundiagnostics.h"

#include "invoice/invoice.h"
#include "source/trackerdb.h"

#include <QFile>
#include <QStandardPaths>
#include <QString>
#include <QStringList>
#include <QVariantMap>

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

int runInvoice(int argc, const char *const *argv)
{
    if (argc < 3) {
        std::fputs("usage: --invoice <invoice.pdf>\n", stdout);
        return 2;
    }
    const QVariantMap result = INVParsePDF(QFile::decodeName(argv[2]));
    if (result.contains(QStringLiteral("problem"))) {
        std::printf("Could not read the invoice: %s\n",
            result.value(QStringLiteral("problem")).toString().toUtf8().constData());
        return 1;
    }
    const qint64 seconds = result.value(QStringLiteral("total_seconds")).toLongLong();
    const QStringList descriptions = result.value(QStringLiteral("descriptions")).toStringList();
    std::printf("total     %s  (%s)\n", INVFormatDuration(seconds).toUtf8().constData(),
        INVFormatHoursMinutes(seconds).toUtf8().constData());
    std::printf("amount    %.2f\n", result.value(QStringLiteral("total_amount")).toDouble());
    std::printf("rows      %s\n", result.value(QStringLiteral("row_count")).toString().toUtf8().constData());
    std::printf("unique    %lu\n\n", static_cast<unsigned long>(descriptions.size()));
    for (const QString &description : descriptions)
        std::printf("%s\n", description.toUtf8().constData());
    return 0;
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
        return runInvoice(argc, argv);
    if (std::strcmp(command, "--smoke-test") == 0 || std::strcmp(command, "--jira-smoke-test") == 0)
        return runSmokeTest(command);
    return -1;
}
