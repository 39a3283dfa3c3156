#include "app/appdelegate.h"

#include "app/appnotifier.h"
#include "app/autostart.h"
#include "app/buildinfo.h"
#include "app/menubarcontroller.h"
#include "app/promptlogic.h"
#include "app/statusrules.h"
#include "app/trayicons.h"
#include "app/ui/invoicewindow.h"
#include "app/ui/jirareviewwindowcontroller.h"
#include "app/ui/lognotification.h"
#include "app/ui/onboardingwindow.h"
#include "app/ui/settingswindow.h"
#include "app/ui/tasklogprompt.h"
#include "app/updatecontroller.h"
#include "diagnostics/diagnosticlog.h"
#include "records/session.h"
#include "source/history.h"
#include "source/stintwatchmonitor.h"
#include "source/stintwatchsourceaccess.h"
#include "summary/exchangerate.h"
#include "summary/timesummary.h"
#include "worklogs/preferences.h"

#include <QApplication>
#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QGridLayout>
#include <QLabel>
#include <QMainWindow>
#include <QMessageBox>
#include <QSaveFile>
#include <QSettings>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QTimer>
#include <QUrl>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <syslog.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace
{

// A panel often starts after the programs of the session: give it this long before deciding there is none.
constexpr int kTrayWaitMs = 4000;
constexpr int kTrayPollMs = 250;
const QString kWebSite = QStringLiteral("https://hourloom.app");

void systemLog(const QString &line)
{
    const QByteArray bytes = line.toUtf8();
    syslog(LOG_WARNING, "%s", bytes.constData());
    std::fprintf(stderr, "%s\n", bytes.constData());
}

// A file dialog of Qt's own with a line of explanation above its buttons: the platform's dialogs have no
// place for one.
void addMessage(QFileDialog &dialog, const QString &message)
{
    dialog.setOption(QFileDialog::DontUseNativeDialog);
    auto *label = new QLabel(message, &dialog);
    label->setWordWrap(true);
    if (auto *grid = qobject_cast<QGridLayout *>(dialog.layout()))
        grid->addWidget(label, grid->rowCount(), 0, 1, grid->columnCount());
}

} // namespace

AppDelegate::AppDelegate(const QString &source, const QString &store, bool smokeTest, QObject *parent)
    : QObject(parent)
    , m_source(source)
    , m_store(store)
    , m_smokeTest(smokeTest)
    , m_settings(std::make_unique<QSettings>())
{
    showOnboarding = [this] { openOnboarding(); };
}

AppDelegate::~AppDelegate()
{
    if (m_monitor) {
        m_monitor->stop();
        m_monitor->disconnect(this);
    }
    // The prompt calls into the Worklogs controller: it goes first.
    delete m_prompts;
    delete m_promptPopup;
    delete m_promptNotification;
    // The windows also call back into the Worklogs controller and the update controller: they go first.
    delete m_onboarding;
    m_settingsWindow.reset();
    m_invoiceWindow.reset();
    delete m_menuBar;
    delete m_review;
}

bool AppDelegate::applicationDidFinishLaunching()
{
    connect(&AppNotifier::shared(), &AppNotifier::summaryChanged, this, &AppDelegate::updateStatus);
    DiagnosticLog::shared().record(DiagnosticEvent::kAppStarted);

    // The history store is what everything else builds on; without it there is nothing to show.
    QString failure;
    if (!QDir().mkpath(m_store) || !QFileInfo(m_store).isDir()) {
        failure = QStringLiteral("The folder %1 could not be created.").arg(QDir::toNativeSeparators(m_store));
    } else {
        try {
            tracker::saveActivities(QFile::encodeName(m_store + QStringLiteral("/history.db")).toStdString(), {});
        } catch (const std::exception &error) {
            failure = QString::fromUtf8(error.what());
        }
    }
    if (!failure.isEmpty()) {
        showAlert(QStringLiteral("Cannot create local tracking history"), failure);
        return false;
    }

    m_review = credentialService.isEmpty() ? new JiraReviewWindowController(m_store)
                                           : new JiraReviewWindowController(m_store, credentialService);
    setUpUpdates();
    m_review->assignmentsDidChange = [this] { updateStatus(); };
    m_review->prepareConnection();

    m_menuBar = new MenuBarController;
    m_menuBar->installMainMenu(m_review->window(), m_review->columnsMenu());
    m_menuBar->setStartAtLogin(Autostart::enabled());
    connect(m_menuBar, &MenuBarController::worklogsRequested, this, &AppDelegate::jira);
    connect(m_menuBar, &MenuBarController::aboutRequested, this, &AppDelegate::about);
    connect(m_menuBar, &MenuBarController::quitRequested, this, &AppDelegate::quit);
    connect(m_menuBar, &MenuBarController::checkJiraRequested, this, &AppDelegate::checkJira);
    connect(m_menuBar, &MenuBarController::exportHistoryRequested, this, &AppDelegate::exportHistory);
    connect(m_menuBar, &MenuBarController::exportDiagnosticsRequested, this, &AppDelegate::exportDiagnostics);
    connect(m_menuBar, &MenuBarController::chooseFolderRequested, this, &AppDelegate::chooseStintwatchFolder);
    connect(m_menuBar, &MenuBarController::startAtLoginChanged, this, &AppDelegate::setStartAtLogin);
    connect(m_menuBar, &MenuBarController::menuVisibilityChanged, this, &AppDelegate::updateStatus);
    setUpWindows();

    m_timer = new QTimer(this);
    connect(m_timer, &QTimer::timeout, this, &AppDelegate::updateStatus);
    setUpPrompts();

    QString folder = m_source;
    if (folder.isNull()) {
        m_access = std::make_unique<StintwatchSourceAccess>(m_settings.get());
        PlatformError error;
        folder = m_access->restoreSource(&error);
        if (folder.isNull() && !error.description.isEmpty())
            systemLog(
                QStringLiteral("Hourloom: could not restore Stintwatch folder access: %1").arg(error.description));
    }
    if (!folder.isNull())
        startMonitor(folder);

    if (!m_settings->value(QStringLiteral("OnboardingCompleted")).toBool() && showOnboarding)
        showOnboarding();

    QTimer::singleShot(0, this, &AppDelegate::updateStatus);
    m_menuBar->trayIcon()->show();
    if (!m_smokeTest)
        waitForTray();
    return true;
}

void AppDelegate::startMonitor(const QString &folder)
{
    if (m_monitor) {
        m_monitor->stop();
        // A scan that was running still reports when it ends; the replaced monitor's news is not shown.
        m_monitor->disconnect(this);
        m_monitor->deleteLater();
    }
    m_monitor = new StintwatchMonitor(folder, m_store, this);
    // Connected before any window listens, so the status and the prompts are current when the windows hear.
    connect(m_monitor, &StintwatchMonitor::changed, this, [this] {
        updateStatus();
        observeForPrompts();
        releaseScanMemory();
    });
    m_monitor->start();
}

void AppDelegate::releaseScanMemory()
{
    // A scan that read the tracker's whole database frees its buffers on the monitor's thread, whose heap
    // arena keeps them; hand them back so a long-running tray program stays small. Once per scan at most.
    if (!m_monitor || m_monitor->scanCount() == m_trimmedScan)
        return;
    m_trimmedScan = m_monitor->scanCount();
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}

void AppDelegate::waitForTray()
{
    auto *poll = new QTimer(this);
    auto waited = std::make_shared<int>(0);
    connect(poll, &QTimer::timeout, this, [this, poll, waited] {
        *waited += kTrayPollMs;
        const bool available = QSystemTrayIcon::isSystemTrayAvailable();
        if (!available && *waited < kTrayWaitMs)
            return;
        poll->deleteLater();
        m_trayWaitFinished = true;
        if (available) {
            m_menuBar->trayIcon()->show();
            return;
        }
        // Without a tray the program would be invisible: the window stands in for the status item.
        jira();
        showNoTrayHint();
    });
    poll->start(kTrayPollMs);
}

void AppDelegate::showNoTrayHint()
{
    const QString key = QStringLiteral("NoTrayHintShown");
    if (m_settings->value(key).toBool())
        return;
    m_settings->setValue(key, true);
    auto *box = new QMessageBox(QMessageBox::Information, QStringLiteral("No system tray found"),
        QStringLiteral("Hourloom normally lives in the system tray, but this desktop shows none."), QMessageBox::Ok,
        m_review->window());
    box->setInformativeText(QStringLiteral(
        "On GNOME, install and enable the AppIndicator and KStatusNotifierItem Support extension "
        "(Debian package gnome-shell-extension-appindicator), then log out and in again. KDE Plasma, XFCE and "
        "Cinnamon show a tray by default. Until then, this window stays available and closing it keeps Hourloom "
        "running; start Hourloom again to bring it back."));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}

QDateTime AppDelegate::now() const
{
    return Clock::shared().wallNow();
}

QVariantList AppDelegate::sessionsMarkingRunning() const
{
    if (!m_monitor)
        return {};
    if (m_monitor->lastKind() != 1)
        return m_monitor->rows();
    return HLSessionsMarkingRunning(m_monitor->rows(), m_monitor->project(), now());
}

void AppDelegate::updateStatus()
{
    if (!m_menuBar)
        return;
    const QDateTime current = now();
    StatusInput input;
    input.now = current;
    input.menuOpen = m_menuBar->menuOpen();
    input.hideShortSessions = JRHideShortSessions();
    if (m_monitor) {
        input.hasMonitor = true;
        input.stintwatchRunning = m_monitor->stintwatchRunning();
        input.error = m_monitor->error();
        input.lastKind = m_monitor->lastKind();
        input.liveObserved = m_monitor->liveObserved();
        input.started = m_monitor->started();
        input.currentDescription = m_monitor->currentDescription();
        input.sessionCount = m_monitor->rows().size();
        if (input.hideShortSessions)
            input.shortSessionCount = HLShortSessionCount(m_monitor->rows());
    }
    const StatusOutput out = HLStatusFor(input);
    m_menuBar->updateTracking(out.taskVisible, out.status, out.task);
    m_menuBar->setTitle(out.title);
    m_menuBar->setNeedsAttention(out.needsAttention);
    m_menuBar->setSessionCount(input.hasMonitor ? out.sessionCount : QString());
    // The row may be cut short by the menu's width; the tool tip keeps the whole description.
    m_menuBar->setTaskTooltip(input.currentDescription);

    QVariantList summaryRows;
    if (m_monitor) {
        summaryRows = m_monitor->lastKind() == 1
            ? HLSessionsMarkingRunning(m_monitor->summaryRows(), m_monitor->project(), current)
            : m_monitor->summaryRows();
    }
    const int period = TimeSummary::configuredPeriod();
    // At most one fetch a day; the summary is drawn again when it ends.
    if (m_settings->value(QStringLiteral("ConvertEarnings")).toBool())
        ExchangeRate::shared().refresh(false);
    const int alternatePeriod = period == 0 ? 1 : 0;
    m_menuBar->setWeeklySummary(
        TimeSummary::summaryText(summaryRows, current, period) + weeklyConversion(summaryRows, current, period),
        TimeSummary::summaryText(summaryRows, current, alternatePeriod)
            + weeklyConversion(summaryRows, current, alternatePeriod));
    m_menuBar->setAlternateVisible(m_settings->value(QStringLiteral("ShowSummary"), true).toBool());

    if (m_review && m_review->isOpen())
        m_review->updateSessions(sessionsMarkingRunning());
    if (m_invoiceWindow && m_invoiceWindow->isVisible())
        m_invoiceWindow->setSessions(sessionsMarkingRunning());

    // Replaced only when the wanted interval changes, so a steady state never restarts the count.
    if (!m_timer->isActive() || m_timer->interval() != out.intervalMs) {
        m_timer->setTimerType(out.intervalMs < kStatusIntervalMs ? Qt::PreciseTimer : Qt::CoarseTimer);
        m_timer->start(out.intervalMs);
    }
}

int AppDelegate::statusIntervalMs() const
{
    return m_timer && m_timer->isActive() ? m_timer->interval() : 0;
}

qsizetype AppDelegate::activityCount() const
{
    return m_monitor ? m_monitor->rows().size() : 0;
}

void AppDelegate::reopen(bool hasVisibleWindows)
{
    if (!hasVisibleWindows || (m_review && !m_review->isOpen()))
        jira();
    else if (m_review) {
        m_review->window()->raise();
        m_review->window()->activateWindow();
    }
}

void AppDelegate::jira()
{
    if (m_review)
        m_review->showSessions(sessionsMarkingRunning());
}

void AppDelegate::about()
{
    if (!m_about) {
        m_about = new QMessageBox(QMessageBox::NoIcon, QStringLiteral("About Hourloom"),
            QStringLiteral("<p><b>Hourloom</b><br>Version %1</p>"
                           "<p>A native Linux companion for reviewing Stintwatch sessions and posting Jira worklogs "
                           "after confirmation.</p><p><a href=\"%2\">%2</a></p>")
                .arg(HLVersionText().toHtmlEscaped(), kWebSite),
            QMessageBox::Ok, m_review ? m_review->window() : nullptr);
        m_about->setIconPixmap(JTApplicationIcon().pixmap(64, 64));
        m_about->setTextFormat(Qt::RichText);
        m_about->setTextInteractionFlags(Qt::TextBrowserInteraction);
        m_about->setAttribute(Qt::WA_DeleteOnClose);
    }
    m_about->show();
    m_about->raise();
    m_about->activateWindow();
}

void AppDelegate::quit()
{
    QCoreApplication::quit();
}

void AppDelegate::checkJira()
{
    if (!m_review)
        return;
    if (!m_review->isOpen())
        jira();
    m_review->checkJira();
}

void AppDelegate::exportHistory()
{
    if (m_review)
        m_review->exportHistory();
}

bool AppDelegate::writeReport(const QString &path, const QString &report, QString *error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(report.toUtf8()) < 0
        || !file.setPermissions(QFile::ReadOwner | QFile::WriteOwner) || !file.commit()) {
        if (error)
            *error = file.errorString();
        return false;
    }
    return true;
}

void AppDelegate::exportDiagnostics()
{
    QFileDialog dialog(m_review ? m_review->window() : nullptr, QStringLiteral("Export Diagnostics"));
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setFileMode(QFileDialog::AnyFile);
    addMessage(dialog,
        QStringLiteral("Review the report before saving. It contains app and Linux versions, timestamps, error "
                       "codes and operation counts, without task content or credentials. Nothing is uploaded."));
    const QString documents = QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
    dialog.setDirectory(QFileInfo(documents).isDir() ? documents : QDir::homePath());
    dialog.selectFile(QStringLiteral("Hourloom-diagnostics.txt"));
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return;
    QString error;
    if (!writeReport(dialog.selectedFiles().constFirst(), DiagnosticLog::shared().report(), &error))
        showAlert(QStringLiteral("Could not save diagnostics"), error);
}

void AppDelegate::chooseStintwatchFolder()
{
    const QString path = askForSourceFolder();
    if (!path.isNull() && useSourceFolder(path))
        refreshSettingsState();
}

QString AppDelegate::askForSourceFolder()
{
    QFileDialog dialog(m_review ? m_review->window() : nullptr, QStringLiteral("Choose Stintwatch Folder"));
    dialog.setFileMode(QFileDialog::Directory);
    dialog.setOption(QFileDialog::ShowDirsOnly);
    dialog.setLabelText(QFileDialog::Accept, QStringLiteral("Choose"));
    const QString defaultPath = StintwatchSourceAccess::defaultSourcePath();
    const bool atDefault = QFileInfo(defaultPath).isDir();
    dialog.setDirectory(atDefault ? defaultPath : QDir::homePath());
    addMessage(dialog,
        atDefault ? QStringLiteral("This is Stintwatch's folder. Click Choose to let Hourloom read it.")
                  : QStringLiteral("Choose Stintwatch's data folder. It must contain Stintwatch.db."));
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
        return {};
    return dialog.selectedFiles().constFirst();
}

bool AppDelegate::useSourceFolder(const QString &path, bool quiet)
{
    if (!m_access)
        m_access = std::make_unique<StintwatchSourceAccess>(m_settings.get());
    PlatformError error;
    const QString folder = m_access->authorizeURL(QUrl::fromLocalFile(path), &error);
    if (folder.isNull()) {
        if (!quiet)
            showAlert(QStringLiteral("Cannot use this folder"), QStringLiteral("Choose the Stintwatch folder."));
        return false;
    }
    startMonitor(folder);
    updateStatus();
    return true;
}

void AppDelegate::setStartAtLogin(bool enabled)
{
    QString error;
    if (!Autostart::setEnabled(enabled, &error)) {
        showAlert(QStringLiteral("Could not change Start at Login"), error);
        if (m_menuBar)
            m_menuBar->setStartAtLogin(Autostart::enabled());
    }
}

void AppDelegate::showAlert(const QString &title, const QString &detail)
{
    if (alert) {
        alert(title, detail);
        return;
    }
    QMessageBox box(QMessageBox::Warning, title, title, QMessageBox::Ok,
        m_review && m_review->isOpen() ? m_review->window() : nullptr);
    box.setInformativeText(detail);
    box.exec();
}

// ---- Log prompt and workday reminder ----------------------------------------------------------------------

void AppDelegate::setUpPrompts()
{
    JiraReviewWindowController *review = m_review;
    LogPromptHost host;
    host.isConnected = [review] { return review->isConnected(); };
    host.busy = [review] { return review->busy(); };
    host.posting = [review] { return review->posting(); };
    host.readyForPrompt = [review] { return review->readyForPrompt(); };
    host.comparePromptSession
        = [review](const QVariantMap &session, const QVariantList &day, LogPromptHost::CompareCompletion done) {
              review->comparePromptSession(session, day, std::move(done));
          };
    // Nothing reaches Jira from here but through "Log now".
    host.postPrompt = [review](const QVariantMap &result, LogPromptHost::PostCompletion done) {
        review->postPrompt(result, std::move(done));
    };
    host.resolveSession = [this, review](const QVariantMap &session) -> QVariantMap {
        if (!m_monitor)
            return {};
        // The latest record of the same session, as the window resolves it now.
        const QVariant start = session.value(SessionKey::kStartMs);
        const QString identity = TaskSwitchObserver::identity(session);
        for (const QVariant &item : m_monitor->rows()) {
            const QVariantMap record = item.toMap();
            if (record.value(SessionKey::kStartMs) == start && TaskSwitchObserver::identity(record) == identity)
                return review->resolvePromptSession(record);
        }
        return {};
    };
    host.siteName = [review] { return review->siteName(); };
    host.openWorklogs = [this] { jira(); };

    m_prompts = new LogPromptCoordinator(std::move(host));
    connect(m_prompts, &LogPromptCoordinator::sessionEnded, this, [this](const QVariantMap &session) {
        if (switchOffered)
            switchOffered(session);
    });
    m_promptPopup = new TaskLogPromptController;
    MenuBarController *menuBar = m_menuBar;
    m_promptPopup->anchorRect = [menuBar] { return menuBar->anchorRect(); };
    updatePromptPresenters();
    // Only once the tracker was read: the reminder comes once a day, and a check before the first scan would
    // spend the day's reminder on an empty day.
    connect(m_timer, &QTimer::timeout, m_prompts, [this] {
        if (m_monitor && m_monitor->scanCount() > 0)
            m_prompts->checkWorkdayEnd();
    });
}

void AppDelegate::updatePromptPresenters()
{
    // The desktop notification is used only when chosen and only where the server shows actions: a
    // notification without "Log now" could not log anything. Asked again only when the choice changes.
    const int choice = m_settings->value(QStringLiteral("PromptsAsNotifications"), false).toBool() ? 1 : 0;
    if (choice == m_notificationChoice)
        return;
    m_notificationChoice = choice;
    if (choice == 1 && !m_promptNotification && LogNotificationSender::serverOffersActions())
        m_promptNotification = new LogNotificationSender;
    m_prompts->setPresenters(m_promptPopup, m_promptNotification);
}

void AppDelegate::observeForPrompts()
{
    if (!m_prompts || !m_monitor)
        return;
    updatePromptPresenters();
    TrackingState tracking;
    tracking.active = m_monitor->lastKind() == 1;
    tracking.live = m_monitor->liveObserved();
    tracking.description = m_monitor->currentDescription();
    tracking.project = m_monitor->project();
    tracking.startMs = m_monitor->started().isValid() ? double(m_monitor->started().toMSecsSinceEpoch()) : 0;
    m_prompts->observeSwitch(m_monitor->rows(), tracking);
}
