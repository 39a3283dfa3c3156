#include "app/rundiagnostics.h"

#include "app/appdelegate.h"
#include "app/ui/jirareviewwindowcontroller.h"
#include "invoice/invoice.h"
#include "platform/appidentity.h"
#include "platform/clock.h"
#include "records/invoice.h"
#include "records/session.h"
#include "source/stintwatchsourceaccess.h"
#include "source/trackerdb.h"

#include <QApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVariantMap>
#include <QWidget>

#include <sys/resource.h>

#include <algorithm>
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
    if (result.contains(InvoiceKey::kProblem)) {
        std::printf(
            "Could not read the invoice: %s\n", result.value(InvoiceKey::kProblem).toString().toUtf8().constData());
        return 1;
    }
    const qint64 seconds = result.value(InvoiceKey::kTotalSeconds).toLongLong();
    const QStringList descriptions = result.value(InvoiceKey::kDescriptions).toStringList();
    std::printf("total     %s  (%s)\n", INVFormatDuration(seconds).toUtf8().constData(),
        INVFormatHoursMinutes(seconds).toUtf8().constData());
    std::printf("amount    %.2f\n", result.value(InvoiceKey::kTotalAmount).toDouble());
    std::printf("rows      %s\n", result.value(InvoiceKey::kRowCount).toString().toUtf8().constData());
    std::printf("unique    %lu\n\n", static_cast<unsigned long>(descriptions.size()));
    for (const QString &description : descriptions)
        std::printf("%s\n", description.toUtf8().constData());
    return 0;
}

int holdSeconds()
{
    bool ok = false;
    const int hold = qEnvironmentVariableIntValue("HOURLOOM_SMOKE_HOLD_SECONDS", &ok);
    return ok && hold > 0 ? hold : 0;
}

double peakResidentMiB()
{
    struct rusage usage {
    };
    ::getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) * 1024.0 / 1'048'576.0; // Linux counts in KiB
}

// The window of the smoke runs is written where a developer looks after `make test`: build/ below the
// current folder.
QString buildPath(const QString &name)
{
    QDir().mkpath(QStringLiteral("build"));
    return QDir::current().filePath(QStringLiteral("build/") + name);
}

int runJiraSmokeTest(int argc, char **argv)
{
    QApplication app(argc, argv);
    HLConfigureApplicationIdentity();
    app.setQuitOnLastWindowClosed(false);
    const int hold = holdSeconds();

    const QString store = QDir::current().filePath(QStringLiteral("build/jira-preview-data"));
    QDir().mkpath(store);
    JiraReviewWindowController controller(store);
    const qint64 now = Clock::shared().wallMs();
    const QVariantMap session {
        {SessionKey::kStartMs, now - 3'600'000},
        {SessionKey::kEndMs, now - 1'800'000},
        {SessionKey::kSourceAccount, QStringLiteral("synthetic")},
        {SessionKey::kProject, qint64(1001)},
        {SessionKey::kLocalId, qint64(1)},
        {SessionKey::kApiId, qint64(1001)},
        {SessionKey::kIssue, QStringLiteral("DEMO-42")},
        {SessionKey::kDescription, QStringLiteral("DEMO-42 Prepare release notes")},
        {SessionKey::kIssueTitle, QStringLiteral("Prepare release notes")},
    };
    controller.showSessions({session});

    QTimer::singleShot(std::max(hold, 3) * 1000, Qt::PreciseTimer, &app, [&controller] {
        const QString snapshot = buildPath(QStringLiteral("jira-preview.png"));
        if (!controller.writeSnapshot(snapshot))
            std::fprintf(stderr, "Could not write %s\n", qPrintable(snapshot));
        std::puts("Jira preview smoke test completed (synthetic data, no authorization).");
        std::fflush(stdout);
        QCoreApplication::quit();
    });
    app.exec();
    return 0;
}

int runSmokeTest(int argc, char **argv)
{
    QApplication app(argc, argv);
    HLConfigureApplicationIdentity();
    app.setQuitOnLastWindowClosed(false);
    const int hold = holdSeconds();

    const QString source = qEnvironmentVariableIsSet("HL_TEST_SOURCE") ? qEnvironmentVariable("HL_TEST_SOURCE")
                                                                       : StintwatchSourceAccess::defaultSourcePath();
    const QString store = qEnvironmentVariableIsSet("HL_TEST_STORE")
        ? qEnvironmentVariable("HL_TEST_STORE")
        : QDir::current().filePath(QStringLiteral("build/smoke-data"));
    AppDelegate delegate(source, store, true);
    // A smoke run has nobody to click an alert away: it says what went wrong and ends.
    delegate.alert = [](const QString &title, const QString &detail) {
        std::fprintf(stderr, "%s: %s\n", qPrintable(title), qPrintable(detail));
    };
    if (!delegate.applicationDidFinishLaunching())
        return 1;

    int status = 0;
    QTimer::singleShot(4000, Qt::PreciseTimer, &app, [&delegate, &status, hold] {
        std::printf("Before screenshot: peak resident memory %.1f MiB\n", peakResidentMiB());
        std::fflush(stdout);
        delegate.reopen(false);
        const QWidgetList windows = QApplication::topLevelWidgets();
        const bool shown
            = std::any_of(windows.cbegin(), windows.cend(), [](const QWidget *window) { return window->isVisible(); });
        if (!shown) {
            std::fputs("Smoke test: a Dock click showed no window\n", stderr);
            status = 1;
            QCoreApplication::quit();
            return;
        }
        JiraReviewWindowController *review = delegate.reviewController();
        const QString snapshot = buildPath(QStringLiteral("smoke-window.png"));
        if (!review->writeSnapshot(snapshot))
            std::fprintf(stderr, "Could not write %s\n", qPrintable(snapshot));
        std::printf("Smoke test: %lu rows, peak resident memory %.1f MiB, status: %s\n",
            static_cast<unsigned long>(delegate.activityCount()), peakResidentMiB(), qPrintable(review->statusText()));
        std::fflush(stdout);
        if (hold < 5)
            QCoreApplication::quit();
        else
            QTimer::singleShot((hold - 4) * 1000, Qt::PreciseTimer, qApp, &QCoreApplication::quit);
    });
    app.exec();
    return status;
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
    // Qt may take its own options out of the vector, as it does for any program's main.
    char **arguments = const_cast<char **>(argv);
    if (std::strcmp(command, "--smoke-test") == 0)
        return runSmokeTest(argc, arguments);
    if (std::strcmp(command, "--jira-smoke-test") == 0)
        return runJiraSmokeTest(argc, arguments);
    return -1;
}
