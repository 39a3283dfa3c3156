#include "app/appdelegate.h"
#include "app/appnotifier.h"
#include "app/autostart.h"
#include "app/buildinfo.h"
#include "app/menubarcontroller.h"
#include "app/singleinstance.h"
#include "app/ui/invoicewindow.h"
#include "app/ui/jirareviewwindowcontroller.h"
#include "app/ui/onboardingwindow.h"
#include "app/ui/settingswindow.h"
#include "app/updatecontroller.h"
#include "diagnostics/diagnosticlog.h"
#include "simtracker.h"
#include "source/stintwatchmonitor.h"
#include "summary/exchangerate.h"
#include "support/testenv.h"

#include <QApplication>
#include <QDragEnterEvent>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QMimeData>
#include <QProcess>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QUrl>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace
{

struct Alert {
    QString title;
    QString detail;
};

// A delegate over a simulated tracker folder, with alerts recorded instead of shown.
struct Shell {
    explicit Shell(const QString &source, const QString &store)
        : delegate(source, store)
    {
        delegate.alert = [this](const QString &title, const QString &detail) { alerts.push_back({title, detail}); };
        // Never signed in: tests that sign in keep their credentials under services of their own.
        delegate.credentialService
            = QStringLiteral("app.hourloom.test.app.shell.%1").arg(QCoreApplication::applicationPid());
    }
    AppDelegate delegate;
    std::vector<Alert> alerts;
};

QStringList menuTitles(QMainWindow *window)
{
    QStringList titles;
    for (QAction *menu : window->menuBar()->actions()) {
        QStringList items;
        for (QAction *item : menu->menu()->actions())
            if (!item->isSeparator())
                items << item->text() + (item->shortcut().isEmpty() ? QString() : u'=' + item->shortcut().toString());
        titles << menu->text() + u':' + items.join(u',');
    }
    return titles;
}

TEST(AppDelegate, StopsWithAnAlertWhenTheHistoryStoreCannotBeCreated)
{
    const QString blocker = testenv::freshDir(QStringLiteral("blocked")) + QStringLiteral("/file");
    QFile file(blocker);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.close();
    qputenv("HOURLOOM_DIAGNOSTICS_DIR", testenv::freshDir(QStringLiteral("diagnostics")).toUtf8());

    Shell shell(testenv::freshDir(QStringLiteral("source")), blocker + QStringLiteral("/store"));
    EXPECT_FALSE(shell.delegate.applicationDidFinishLaunching());
    ASSERT_EQ(shell.alerts.size(), 1u);
    EXPECT_EQ(shell.alerts[0].title, QStringLiteral("Cannot create local tracking history"));
    EXPECT_FALSE(shell.alerts[0].detail.isEmpty());
    // The start was recorded before the store was tried; nothing after the store was built.
    EXPECT_TRUE(DiagnosticLog::shared().report().contains(QStringLiteral("app_started")));
    EXPECT_EQ(shell.delegate.monitor(), nullptr);
    EXPECT_EQ(shell.delegate.reviewController(), nullptr);
    EXPECT_EQ(shell.delegate.menuBar(), nullptr);
    qunsetenv("HOURLOOM_DIAGNOSTICS_DIR");
}

TEST(AppDelegate, WindowMenuBarCarriesTheMainMenuWithControlKeys)
{
    Shell shell(testenv::freshDir(QStringLiteral("source")), testenv::freshDir(QStringLiteral("store")));
    ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
    const QStringList menus = menuTitles(shell.delegate.reviewController()->window());
    ASSERT_EQ(menus.size(), 4);
    EXPECT_EQ(menus[0],
        QStringLiteral("&Hourloom:About Hourloom,Settings…=Ctrl+,,Choose Stintwatch Folder…,Export Diagnostics…,"
                       "Start at Login,Quit Hourloom=Ctrl+Q"));
    EXPECT_EQ(menus[1], QStringLiteral("&File:Read Invoice…,Export History…=Ctrl+Shift+E,Close Window=Ctrl+W"));
    EXPECT_EQ(menus[2], QStringLiteral("&Edit:Cut=Ctrl+X,Copy=Ctrl+C,Paste=Ctrl+V,Select All=Ctrl+A"));
    EXPECT_EQ(menus[3], QStringLiteral("&View:Check Jira Again=Ctrl+R,Columns"));

    QStringList status;
    for (QAction *item : shell.delegate.menuBar()->statusMenu()->actions())
        status << (item->isSeparator() ? QStringLiteral("-") : item->text());
    EXPECT_EQ(status.mid(4),
        (QStringList {QStringLiteral("-"), QStringLiteral("Worklogs…"), QStringLiteral("Read Invoice…"),
            QStringLiteral("-"), QStringLiteral("Settings…"), QStringLiteral("Quit Hourloom")}));
}

QAction *findItem(QMenu *menu, const QString &text)
{
    for (QAction *item : menu->actions()) {
        if (item->text() == text)
            return item;
        if (item->menu())
            if (QAction *inner = findItem(item->menu(), text))
                return inner;
    }
    return nullptr;
}

// Every window the menus offer opens from both the tray and the Worklogs window's menu bar.
TEST(AppDelegate, MenuItemsOpenTheirWindows)
{
    const struct {
        bool tray;
        const char *item;
        const char *window;
    } cases[] = {
        {true, "Worklogs…", "worklogs"},
        {true, "Settings…", "settings"},
        {false, "Settings…", "settings"},
        {true, "Read Invoice…", "invoice"},
        {false, "Read Invoice…", "invoice"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.tray ? "tray " : "menu bar ") + c.item);
        Shell shell(testenv::freshDir(QStringLiteral("source")), testenv::freshDir(QStringLiteral("store")));
        ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
        QMenu *menu = shell.delegate.menuBar()->statusMenu();
        if (!c.tray) {
            menu = new QMenu;
            menu->addActions(shell.delegate.reviewController()->window()->menuBar()->actions());
        }
        QAction *item = findItem(menu, QString::fromUtf8(c.item));
        ASSERT_NE(item, nullptr);
        const QString window = QString::fromLatin1(c.window);
        // The invoice item asks for a file first; cancelling it leaves the window open and empty.
        QTimer dismiss;
        QObject::connect(&dismiss, &QTimer::timeout, [] {
            if (QWidget *dialog = QApplication::activeModalWidget())
                dialog->close();
        });
        dismiss.start(50);
        item->trigger();
        if (window == QStringLiteral("worklogs")) {
            EXPECT_TRUE(shell.delegate.reviewController()->isOpen());
        } else if (window == QStringLiteral("settings")) {
            ASSERT_NE(shell.delegate.settingsWindow(), nullptr);
            EXPECT_TRUE(shell.delegate.settingsWindow()->isVisible());
            EXPECT_EQ(shell.delegate.settingsWindow()->currentPane(), QStringLiteral("general"));
        } else {
            ASSERT_NE(shell.delegate.invoiceWindow(), nullptr);
            EXPECT_TRUE(shell.delegate.invoiceWindow()->isVisible());
        }
        if (!c.tray)
            delete menu;
    }
}

// Settings follows the shell: the source folder, the update state, and summary changes.
TEST(AppDelegate, SettingsShowsTheShellsStateAndUpdates)
{
    SimTracker tracker(testenv::freshDir(QStringLiteral("source")));
    tracker.create();
    Shell shell(tracker.folder(), testenv::freshDir(QStringLiteral("store")));
    ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
    shell.delegate.settings();
    SettingsWindow *settings = shell.delegate.settingsWindow();
    ASSERT_NE(settings, nullptr);
    const QList<QLabel *> labels = settings->findChildren<QLabel *>();
    EXPECT_TRUE(std::any_of(labels.cbegin(), labels.cend(), [&](const QLabel *label) {
        return label->toolTip() == tracker.folder();
    })) << "the folder being read is shown";
    // Updates are offered only by builds with a feed; this one says why not.
    const QString reason = shell.delegate.updateController()->unavailableReason();
    EXPECT_EQ(reason, QStringLiteral("This build has no update feed."));
    EXPECT_TRUE(std::any_of(labels.cbegin(), labels.cend(), [](const QLabel *label) {
        return label->text() == QStringLiteral("Updates are not available in this build.");
    }));

    // A summary change in Settings reaches the whole application.
    QSignalSpy summary(&AppNotifier::shared(), &AppNotifier::summaryChanged);
    emit settings->summaryChanged();
    EXPECT_EQ(summary.count(), 1);
}

// First run: the set-up window opens until it has been completed.
TEST(AppDelegate, OnboardingOpensUntilCompleted)
{
    for (const bool completed : {false, true}) {
        OnboardingWindowController::setCompleted(completed);
        Shell shell(testenv::freshDir(QStringLiteral("source")), testenv::freshDir(QStringLiteral("store")));
        ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
        OnboardingWindowController *window = shell.delegate.onboardingWindow();
        EXPECT_EQ(window != nullptr && window->isVisible(), !completed);
    }
}

// A PDF dropped on the Worklogs window is read as an invoice; other files are not taken.
TEST(AppDelegate, PdfDroppedOnWorklogsOpensTheInvoiceWindow)
{
    Shell shell(testenv::freshDir(QStringLiteral("source")), testenv::freshDir(QStringLiteral("store")));
    ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
    shell.delegate.jira();
    QMainWindow *worklogs = shell.delegate.reviewController()->window();
    const auto drop = [&](const QString &path) {
        QMimeData data;
        data.setUrls({QUrl::fromLocalFile(path)});
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(worklogs, &enter);
        QDropEvent dropped(QPointF(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(worklogs, &dropped);
        return enter.isAccepted();
    };
    EXPECT_FALSE(drop(testenv::dataPath(QStringLiteral("invoices/make_invoices.py"))));
    EXPECT_EQ(shell.delegate.invoiceWindow(), nullptr);
    EXPECT_TRUE(drop(testenv::dataPath(QStringLiteral("invoices/week.pdf"))));
    ASSERT_NE(shell.delegate.invoiceWindow(), nullptr);
    EXPECT_TRUE(shell.delegate.invoiceWindow()->isVisible());
    EXPECT_TRUE(testenv::waitFor([&] { return !shell.delegate.invoiceWindow()->result().isEmpty(); }, 30000));
}

// The tray's summary rows carry the converted earnings while conversion is on, and are drawn again when a
// rate arrives.
TEST(AppDelegate, SummaryRowsCarryTheCurrencyConversion)
{
    QSettings settings;
    settings.setValue(QStringLiteral("HourlyRate"), QStringLiteral("20"));
    settings.setValue(QStringLiteral("HourlyCurrency"), QStringLiteral("USD"));
    settings.setValue(QStringLiteral("EstimateCurrency"), QStringLiteral("EUR"));
    settings.setValue(ExchangeRate::cacheKey(QStringLiteral("USD"), QStringLiteral("EUR")),
        QVariantMap {{QStringLiteral("base"), QStringLiteral("USD")}, {QStringLiteral("quote"), QStringLiteral("EUR")},
            {QStringLiteral("rate"), 0.5},
            {QStringLiteral("date"), QDate::currentDate().addDays(-1).toString(QStringLiteral("yyyy-MM-dd"))},
            {QStringLiteral("checked"), QDateTime::currentDateTime()},
            {QStringLiteral("provider"), QStringLiteral("ECB")}});
    settings.setValue(QStringLiteral("ConvertEarnings"), false);
    Shell shell(testenv::freshDir(QStringLiteral("source")), testenv::freshDir(QStringLiteral("store")));
    ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
    MenuBarController *menu = shell.delegate.menuBar();
    shell.delegate.updateStatus();
    EXPECT_FALSE(menu->summaryText().contains(QStringLiteral(" ≈ "))) << qPrintable(menu->summaryText());

    settings.setValue(QStringLiteral("ConvertEarnings"), true);
    emit ExchangeRate::shared().summaryChanged();
    EXPECT_TRUE(menu->summaryText().endsWith(QStringLiteral(" ≈ €0.00"))) << qPrintable(menu->summaryText());
    EXPECT_TRUE(menu->alternateText().endsWith(QStringLiteral(" ≈ €0.00"))) << qPrintable(menu->alternateText());
}

// A second launch with a PDF hands it to the running Hourloom, which reads it in its invoice window.
TEST(AppDelegate, SecondLaunchWithAPdfOpensTheInvoiceInTheFirst)
{
    const QString runtime = testenv::freshDir(QStringLiteral("runtime"));
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QByteArray savedRuntime = qgetenv("XDG_RUNTIME_DIR");
    qputenv("XDG_RUNTIME_DIR", runtime.toUtf8());

    Shell shell(testenv::freshDir(QStringLiteral("source")), testenv::freshDir(QStringLiteral("store")));
    ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
    SingleInstance first;
    ASSERT_TRUE(first.claim());
    QObject::connect(&first, &SingleInstance::filesOpened, &shell.delegate,
        [&shell](const QStringList &paths) { shell.delegate.openFiles(paths); });
    int activations = 0;
    QObject::connect(&first, &SingleInstance::activationRequested, [&activations] { ++activations; });

    const QString pdf = testenv::dataPath(QStringLiteral("invoices/week.pdf"));
    const QStringList handed = AppDelegate::pdfArguments(
        {QStringLiteral("--verbose"), pdf, QStringLiteral("notes.txt"), QUrl::fromLocalFile(pdf).toString()});
    EXPECT_EQ(handed, (QStringList {pdf, pdf}));
    std::atomic<int> answer = -1;
    // The second launch blocks while it asks; the first answers from its event loop.
    std::thread second([&] {
        SingleInstance other;
        answer = other.claim(true, {pdf}) ? 1 : (other.reachedOther() ? 0 : 2);
    });
    const bool answered = testenv::waitFor([&] { return answer.load() >= 0; }, 20000);
    second.join();
    ASSERT_TRUE(answered);
    EXPECT_EQ(answer.load(), 0) << "the second launch defers to the first";
    EXPECT_EQ(activations, 0) << "opening a file does not also raise Worklogs";
    ASSERT_TRUE(testenv::waitFor([&] { return shell.delegate.invoiceWindow() != nullptr; }, 20000));
    InvoiceWindow *window = shell.delegate.invoiceWindow();
    EXPECT_TRUE(window->isVisible());
    ASSERT_TRUE(testenv::waitFor([&] { return !window->isReading() && !window->result().isEmpty(); }, 30000));
    EXPECT_FALSE(window->summaryText().isEmpty());

    // A launch without files only raises the window.
    answer = -1;
    std::thread plain([&] {
        SingleInstance other;
        answer = other.claim(true) ? 1 : (other.reachedOther() ? 0 : 2);
    });
    testenv::waitFor([&] { return answer.load() >= 0; }, 20000);
    plain.join();
    EXPECT_EQ(answer.load(), 0);
    EXPECT_EQ(activations, 1);
    qputenv("XDG_RUNTIME_DIR", savedRuntime);
}

// The status rows follow the tracker: each change shows within one refresh of the status item.
TEST(AppDelegate, StatusRowsFollowTheSimulatedTracker)
{
    const QString source = testenv::freshDir(QStringLiteral("source"));
    SimTracker tracker(source);
    tracker.create();

    QSettings().setValue(QStringLiteral("OnboardingCompleted"), false);
    Shell shell(source, testenv::freshDir(QStringLiteral("store")));
    bool onboarding = false;
    shell.delegate.showOnboarding = [&onboarding] { onboarding = true; };
    ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
    EXPECT_TRUE(onboarding);
    bool running = true;
    shell.delegate.monitor()->setRunningCheck([&running] { return running; });
    shell.delegate.monitor()->scan(true);
    // What the log held at start counts as history; tracking begun now is live.
    ASSERT_TRUE(testenv::waitFor([&] { return shell.delegate.monitor()->scanCount() >= 1; }, 20000));
    EXPECT_EQ(shell.delegate.menuBar()->statusText(), QStringLiteral("Waiting for Stintwatch activity"));
    tracker.start(42, QStringLiteral("ED-1 Fix the login"));

    MenuBarController *menu = shell.delegate.menuBar();
    ASSERT_TRUE(testenv::waitFor([&] { return menu->statusText().startsWith(QStringLiteral("Tracking · ")); }, 20000))
        << menu->statusText().toStdString();
    EXPECT_TRUE(menu->taskVisible());
    EXPECT_EQ(menu->taskText(), QStringLiteral("ED-1: ED-1 Fix the login"));
    EXPECT_TRUE(menu->toolTip().startsWith(QStringLiteral("Hourloom · Tracking ED-1\n")))
        << menu->toolTip().toStdString();
    EXPECT_EQ(menu->state(), TrayState::Tracking);
    EXPECT_EQ(shell.delegate.statusIntervalMs(), 15000);

    // Live tracking with the menu open refreshes every second; closing it goes back to 15 s.
    menu->statusMenu()->popup(QPoint(10, 10));
    EXPECT_TRUE(testenv::waitFor([&] { return shell.delegate.statusIntervalMs() == 1000; }));
    menu->statusMenu()->hide();
    EXPECT_TRUE(testenv::waitFor([&] { return shell.delegate.statusIntervalMs() == 15000; }));

    tracker.switchTo(43, QStringLiteral("ED-2 Review the notes"));
    EXPECT_TRUE(
        testenv::waitFor([&] { return menu->taskText() == QStringLiteral("ED-2: ED-2 Review the notes"); }, 20000))
        << menu->taskText().toStdString();

    tracker.stop();
    EXPECT_TRUE(testenv::waitFor(
        [&] { return menu->statusText() == QStringLiteral("Stopped — last reported by Stintwatch"); }, 20000))
        << menu->statusText().toStdString();
    EXPECT_FALSE(menu->taskVisible());
    EXPECT_EQ(menu->toolTip().section(u'\n', 0, 0), QStringLiteral("Hourloom"));

    running = false;
    shell.delegate.updateStatus();
    EXPECT_EQ(menu->statusText(), QStringLiteral("Stintwatch is not running"));
    EXPECT_EQ(shell.delegate.activityCount(), 2);
    // The weekly row and its alternate (today) are both shown while the work summary is on.
    EXPECT_TRUE(menu->summaryText().startsWith(QStringLiteral("This week · "))) << menu->summaryText().toStdString();
    EXPECT_TRUE(menu->alternateText().startsWith(QStringLiteral("Today · ")));
    EXPECT_TRUE(menu->alternateVisible());
    QSettings().setValue(QStringLiteral("ShowSummary"), false);
    shell.delegate.updateStatus();
    EXPECT_FALSE(menu->alternateVisible());
}

TEST(AppDelegate, WithoutAFolderAsksForOneAndRefusesAWrongChoice)
{
    Shell shell(QString(), testenv::freshDir(QStringLiteral("store")));
    ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
    shell.delegate.updateStatus();
    EXPECT_EQ(shell.delegate.monitor(), nullptr);
    EXPECT_EQ(shell.delegate.menuBar()->statusText(), QStringLiteral("Choose the Stintwatch folder"));
    EXPECT_EQ(shell.delegate.menuBar()->state(), TrayState::NeedsAttention);

    EXPECT_FALSE(shell.delegate.useSourceFolder(testenv::freshDir(QStringLiteral("empty"))));
    ASSERT_EQ(shell.alerts.size(), 1u);
    EXPECT_EQ(shell.alerts[0].title, QStringLiteral("Cannot use this folder"));
    EXPECT_EQ(shell.alerts[0].detail, QStringLiteral("Choose the Stintwatch folder."));
    EXPECT_EQ(shell.delegate.monitor(), nullptr);

    SimTracker tracker(testenv::freshDir(QStringLiteral("chosen")));
    tracker.create();
    EXPECT_TRUE(shell.delegate.useSourceFolder(tracker.folder()));
    ASSERT_NE(shell.delegate.monitor(), nullptr);
    EXPECT_EQ(shell.delegate.monitor()->folder(), tracker.folder());
    EXPECT_EQ(QSettings().value(QStringLiteral("StintwatchSourcePath")).toString(), tracker.folder());
}

// With no tray host the program opens its window after a short wait, so it is never invisible.
TEST(AppDelegate, WithoutATrayOpensTheWorklogsWindowAndExplainsOnce)
{
    if (QSystemTrayIcon::isSystemTrayAvailable())
        GTEST_SKIP() << "a tray host is running";
    Shell shell(testenv::freshDir(QStringLiteral("source")), testenv::freshDir(QStringLiteral("store")));
    ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
    EXPECT_FALSE(shell.delegate.reviewController()->isOpen());
    ASSERT_TRUE(testenv::waitFor([&] { return shell.delegate.trayWaitFinished(); }, 30000));
    EXPECT_TRUE(shell.delegate.reviewController()->isOpen());
    EXPECT_TRUE(QSettings().value(QStringLiteral("NoTrayHintShown")).toBool());
}

// Under a real display with a tray host (scripts/with-tray.sh) the icon docks and no window opens.
TEST(AppDelegate, WithATrayShowsOnlyTheIcon)
{
    if (qgetenv("HOURLOOM_EXPECT_TRAY") != "1")
        GTEST_SKIP() << "runs under scripts/with-tray.sh";
    Shell shell(testenv::freshDir(QStringLiteral("source")), testenv::freshDir(QStringLiteral("store")));
    ASSERT_TRUE(shell.delegate.applicationDidFinishLaunching());
    ASSERT_TRUE(testenv::waitFor([&] { return shell.delegate.trayWaitFinished(); }, 30000));
    EXPECT_TRUE(QSystemTrayIcon::isSystemTrayAvailable());
    EXPECT_TRUE(shell.delegate.menuBar()->trayIcon()->isVisible());
    EXPECT_TRUE(testenv::waitFor([&] { return shell.delegate.menuBar()->anchorRect().isValid(); }, 10000));
    EXPECT_FALSE(shell.delegate.reviewController()->isOpen());
}

TEST(AppDelegate, DiagnosticsReportIsWrittenForTheOwnerOnly)
{
    const QString path = testenv::freshDir(QStringLiteral("export")) + QStringLiteral("/Hourloom-diagnostics.txt");
    QString error;
    ASSERT_TRUE(AppDelegate::writeReport(path, QStringLiteral("report"), &error));
    const QFile::Permissions permissions = QFileInfo(path).permissions();
    EXPECT_TRUE(permissions.testFlag(QFile::ReadOwner));
    EXPECT_FALSE(permissions & (QFile::ReadGroup | QFile::WriteGroup | QFile::ReadOther | QFile::WriteOther));
    EXPECT_FALSE(AppDelegate::writeReport(path + QStringLiteral(".missing/x"), QStringLiteral("report"), &error));
    EXPECT_FALSE(error.isEmpty());
    EXPECT_TRUE(DiagnosticLog::shared().report().startsWith(QStringLiteral("Hourloom diagnostics\nVersion: ")
        + QCoreApplication::applicationVersion() + QStringLiteral(" (") + HLBuildVersion() + u')'));
    EXPECT_NE(HLBuildVersion(), QStringLiteral("unknown"));
    EXPECT_EQ(HLVersionText(), QCoreApplication::applicationVersion() + QStringLiteral(" (") + HLBuildVersion() + u')');
}

TEST(Autostart, StartAtLoginWritesAndRemovesTheEntry)
{
    const QString path = Autostart::entryPath();
    EXPECT_TRUE(path.startsWith(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)));
    EXPECT_FALSE(Autostart::enabled());
    QString error;
    ASSERT_TRUE(Autostart::setEnabled(true, &error)) << error.toStdString();
    EXPECT_TRUE(Autostart::enabled());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray text = file.readAll();
    EXPECT_TRUE(
        text.contains(QByteArray("\nExec=" + QFile::encodeName(QCoreApplication::applicationFilePath()) + "\n")));
    if (const QString validator = QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate"));
        !validator.isEmpty()) {
        QProcess validate;
        validate.start(validator, {path});
        ASSERT_TRUE(validate.waitForFinished(30000));
        EXPECT_EQ(validate.exitCode(), 0) << validate.readAllStandardOutput().toStdString();
    }
    ASSERT_TRUE(Autostart::setEnabled(false, &error));
    EXPECT_FALSE(QFileInfo::exists(path));
    EXPECT_TRUE(Autostart::setEnabled(false, &error)); // already off
    // A path with a blank is quoted as desktop entries require.
    EXPECT_TRUE(
        Autostart::entry(QStringLiteral("/opt/my apps/hourloom")).contains("\nExec=\"/opt/my apps/hourloom\"\n"));
}

} // namespace
