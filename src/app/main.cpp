#include "app/appdelegate.h"
#include "app/demosnapshots.h"
#include "app/desktopurlopener.h"
#include "app/rundiagnostics.h"
#include "app/singleinstance.h"
#include "app/supportfolder.h"
#include "app/trayicons.h"
#include "platform/appidentity.h"

#include <QApplication>
#include <QIcon>
#include <QSocketNotifier>
#include <QWidget>

#include <algorithm>
#include <csignal>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

int g_signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(g_signalPipe[0], &byte, 1);
}

// A session that ends sends SIGTERM; the run loop then ends normally, as "Quit Hourloom" would.
void quitOnTerminationSignals(QApplication &app)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, g_signalPipe) != 0)
        return;
    auto *notifier = new QSocketNotifier(g_signalPipe[1], QSocketNotifier::Read, &app);
    QObject::connect(notifier, &QSocketNotifier::activated, &app, [] {
        char byte;
        [[maybe_unused]] const ssize_t read = ::read(g_signalPipe[1], &byte, 1);
        // exit() rather than quit(): it also ends an alert's loop, and a window cannot refuse it.
        QCoreApplication::exit(0);
    });
    struct sigaction action {
    };
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGHUP, &action, nullptr);
}

bool anyWindowVisible()
{
    const QWidgetList windows = QApplication::topLevelWidgets();
    return std::any_of(windows.cbegin(), windows.cend(), [](const QWidget *window) { return window->isVisible(); });
}

} // namespace

int main(int argc, char **argv)
{
    // The Jira sign-in shows its authorization page in the user's browser, in every mode that can connect.
    DesktopUrlOpener browser;
    UrlOpener::setShared(&browser);

    const int status = RunDiagnostics(argc, argv);
    if (status >= 0)
        return status;

#ifdef __GLIBC__
    // One heap for every thread: a tray program idles for hours, and the memory a large scan used on the
    // monitor's thread can then be handed back after it instead of staying in a second arena.
    mallopt(M_ARENA_MAX, 1);
#endif
    QApplication app(argc, argv);
    HLConfigureApplicationIdentity();
    QGuiApplication::setDesktopFileName(QStringLiteral(HOURLOOM_APP_ID));
    QApplication::setWindowIcon(JTApplicationIcon());
    // The program lives in the tray: closing its last window leaves it running.
    app.setQuitOnLastWindowClosed(false);

    // Before anything can be seen from outside, so a session that ends early never kills a half-started run.
    quitOnTerminationSignals(app);

    // PDFs named on the command line (the desktop file offers Hourloom for them) are read as invoices, by the
    // Hourloom that is already running when there is one.
    const QStringList pdfs = AppDelegate::pdfArguments(QCoreApplication::arguments().mid(1));
    SingleInstance instance;
    if (!instance.claim(true, pdfs)) {
        if (instance.reachedOther())
            return 0; // the running Hourloom shows its window
        std::fputs("Hourloom is already running but did not answer; try again in a moment.\n", stderr);
        return 1;
    }

    AppDelegate delegate(QString(), SupportFolder::prepare());
    QObject::connect(&instance, &SingleInstance::activationRequested, &delegate,
        [&delegate] { delegate.reopen(anyWindowVisible()); });
    QObject::connect(&instance, &SingleInstance::filesOpened, &delegate,
        [&delegate](const QStringList &paths) { delegate.openFiles(paths); });
    if (!delegate.applicationDidFinishLaunching())
        return 1;
    delegate.openFiles(pdfs);
#ifdef HOURLOOM_TEST_HOOKS
    if (const QString folder = qEnvironmentVariable("HOURLOOM_TEST_SNAPSHOT_DIR"); !folder.isEmpty())
        HLTakeDemoSnapshots(delegate, folder);
    if (qEnvironmentVariableIsSet("HOURLOOM_TEST_TRAY_TIMING"))
        HLReportTrayShown(delegate);
    if (qEnvironmentVariableIsSet("HOURLOOM_TEST_WINDOW_TIMING"))
        HLReportWorklogsShown(delegate);
#endif
    app.exec();
    return 0;
}
