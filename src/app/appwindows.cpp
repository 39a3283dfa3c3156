// The application delegate's windows beyond Worklogs: Settings, the invoice reader and the first-run set-up,
// with the update controller they show.

#include "app/appdelegate.h"
#include "app/appnotifier.h"
#include "app/autostart.h"
#include "app/menubarcontroller.h"
#include "app/ui/invoicewindow.h"
#include "app/ui/jirareviewwindowcontroller.h"
#include "app/ui/onboardingwindow.h"
#include "app/ui/settingswindow.h"
#include "app/updatecontroller.h"
#include "jira/connectionsettings.h"
#include "records/jiraanswer.h"
#include "source/stintwatchmonitor.h"
#include "summary/exchangerate.h"
#include "summary/timesummary.h"

#include <QCheckBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileInfo>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QSettings>
#include <QUrl>

namespace
{

void present(QWidget *window)
{
    window->show();
    window->raise();
    window->activateWindow();
}

bool isPdf(const QString &path)
{
    return QFileInfo(path).suffix().compare(QStringLiteral("pdf"), Qt::CaseInsensitive) == 0;
}

// Without a sign-in service Jira cannot be connected; Settings is where one is entered.
bool hasSignInService()
{
    QSettings settings;
    return !ConnectionSettings(settings).effectiveOrigin().isEmpty();
}

} // namespace

void AppDelegate::setUpUpdates()
{
    m_updates = new UpdateController(this);
    // Restarting in the middle of a posting run would cut it short; the relaunch waits for the run to end.
    m_updates->shouldPostponeRelaunch = [this] { return m_review && m_review->posting(); };
    connect(m_review, &JiraReviewWindowController::postingChanged, this, [this](bool posting) {
        if (!posting)
            m_updates->relaunchIfPostponed();
    });
    m_updates->start();
}

void AppDelegate::setUpWindows()
{
    connect(m_menuBar, &MenuBarController::settingsRequested, this, &AppDelegate::settings);
    connect(m_menuBar, &MenuBarController::invoiceRequested, this, &AppDelegate::invoice);
    connect(&ExchangeRate::shared(), &ExchangeRate::summaryChanged, this, &AppDelegate::updateStatus);
    connect(m_review, &JiraReviewWindowController::statusChanged, this, &AppDelegate::refreshSettingsState);

    const std::function<void()> assignmentsChanged = m_review->assignmentsDidChange;
    m_review->assignmentsDidChange = [this, assignmentsChanged] {
        if (assignmentsChanged)
            assignmentsChanged();
        if (m_settingsWindow)
            m_settingsWindow->reloadRules();
    };
    const std::function<void()> connectionChanged = m_review->connectionDidChange;
    m_review->connectionDidChange = [this, connectionChanged] {
        if (connectionChanged)
            connectionChanged();
        refreshSettingsState();
        // Set-up is done once Jira is connected from its last step.
        if (m_onboarding && m_onboarding->step() == 2 && m_review->jiraConnected())
            m_onboarding->finish();
    };

    // "Start at Login" is also a Settings choice: the menu shows what is in force when it opens.
    if (QMenuBar *bar = m_review->window()->menuBar(); bar && !bar->actions().isEmpty())
        if (QMenu *application = bar->actions().constFirst()->menu())
            connect(
                application, &QMenu::aboutToShow, this, [this] { m_menuBar->setStartAtLogin(Autostart::enabled()); });

    // A PDF dropped anywhere on the Worklogs window is read as an invoice.
    m_review->window()->setAcceptDrops(true);
    m_review->window()->installEventFilter(this);
}

bool AppDelegate::eventFilter(QObject *watched, QEvent *event)
{
    if (m_review && watched == m_review->window()) {
        if (event->type() == QEvent::DragEnter || event->type() == QEvent::DragMove) {
            auto *drag = static_cast<QDragMoveEvent *>(event);
            if (!InvoiceWindow::pdfFromMimeData(drag->mimeData()).isNull()) {
                drag->acceptProposedAction();
                return true;
            }
        } else if (event->type() == QEvent::Drop) {
            auto *drop = static_cast<QDropEvent *>(event);
            const QString path = InvoiceWindow::pdfFromMimeData(drop->mimeData());
            if (!path.isNull()) {
                drop->acceptProposedAction();
                openFiles({path});
                return true;
            }
        }
    }
    return QObject::eventFilter(watched, event);
}

SettingsWindow *AppDelegate::settingsWindow() const
{
    return m_settingsWindow.get();
}

InvoiceWindow *AppDelegate::invoiceWindow() const
{
    return m_invoiceWindow.get();
}

OnboardingWindowController *AppDelegate::onboardingWindow() const
{
    return m_onboarding;
}

void AppDelegate::settings()
{
    if (!m_review)
        return;
    if (!m_settingsWindow) {
        m_settingsWindow = std::make_unique<SettingsWindow>(m_store, m_updates);
        SettingsWindow *window = m_settingsWindow.get();
        window->chooseSourceFolder = [this] { chooseStintwatchFolder(); };
        window->connectJira = [this] {
            if (!hasSignInService()) {
                m_settingsWindow->showPane(QStringLiteral("advanced"));
                return;
            }
            m_review->connectJira();
        };
        window->disconnectJira = [this] {
            m_review->disconnectJira();
            refreshSettingsState();
        };
        window->signInServiceChanged = [this] {
            m_review->connectionSettingsChanged();
            refreshSettingsState();
        };
        window->exportDiagnostics = [this] { exportDiagnostics(); };
        window->assignmentsDidChange = [this] {
            m_review->reloadAssignments();
            updateStatus();
        };
        window->siteName = [this](const QString &site) { return siteName(site); };
        connect(window, &SettingsWindow::summaryChanged, &AppNotifier::shared(), &AppNotifier::summaryChanged);
    }
    m_settingsConnection.clear();
    refreshSettingsState();
    // The menu may have changed it since the window was made.
    if (auto *startAtLogin = m_settingsWindow->findChild<QCheckBox *>(QStringLiteral("StartAtLogin"))) {
        const QSignalBlocker block(startAtLogin);
        startAtLogin->setChecked(Autostart::enabled());
    }
    present(m_settingsWindow.get());
}

void AppDelegate::refreshSettingsState()
{
    if (!m_settingsWindow || !m_review)
        return;
    SettingsWindow *window = m_settingsWindow.get();
    QStringList names;
    for (const QVariant &site : m_review->sites()) {
        const QVariantMap map = site.toMap();
        const QString name = map.value(JiraSiteKey::kName).toString();
        names << (name.isEmpty() ? map.value(JiraSiteKey::kUrl).toString() : name);
    }
    const bool connected = m_review->jiraConnected();
    // Passing the same connection again would redraw the rules table and lose the user's selection in it.
    const QString connection = QString::number(connected) + u'\n' + names.join(u'\n');
    if (connection != m_settingsConnection) {
        m_settingsConnection = connection;
        window->setConnection(connected, names, !names.isEmpty());
    }
    window->setBusy(m_review->busy());
    window->setPosting(m_review->posting());
    window->setSourcePath(m_monitor ? m_monitor->folder() : QString());
}

QString AppDelegate::siteName(const QString &site) const
{
    if (!m_review || site.isEmpty())
        return {};
    for (const QVariant &item : m_review->sites()) {
        const QVariantMap map = item.toMap();
        if (map.value(JiraSiteKey::kId).toString() == site || map.value(JiraSiteKey::kUrl).toString() == site)
            return map.value(JiraSiteKey::kName).toString();
    }
    return {};
}

QString AppDelegate::weeklyConversion(const QVariantList &summaryRows, const QDateTime &now, int period) const
{
    return ExchangeRate::shared().conversionForSeconds(TimeSummary::seconds(summaryRows, now, period));
}

InvoiceWindow *AppDelegate::ensureInvoiceWindow()
{
    if (!m_invoiceWindow) {
        m_invoiceWindow = std::make_unique<InvoiceWindow>();
        m_invoiceWindow->setSessions(sessionsMarkingRunning());
    }
    return m_invoiceWindow.get();
}

void AppDelegate::invoice()
{
    ensureInvoiceWindow()->chooseInvoice();
}

bool AppDelegate::openFiles(const QStringList &paths)
{
    bool opened = false;
    for (const QString &path : paths) {
        if (!isPdf(path))
            continue;
        ensureInvoiceWindow()->openInvoice(path);
        opened = true;
    }
    return opened;
}

QStringList AppDelegate::pdfArguments(const QStringList &arguments)
{
    QStringList paths;
    for (const QString &argument : arguments) {
        if (argument.startsWith(u'-'))
            continue;
        // A file manager may hand over a file URL instead of a path.
        const QString path = argument.startsWith(QStringLiteral("file:")) ? QUrl(argument).toLocalFile() : argument;
        if (!path.isEmpty() && isPdf(path))
            paths << QFileInfo(path).absoluteFilePath();
    }
    return paths;
}

void AppDelegate::openOnboarding()
{
    if (m_onboarding) {
        present(m_onboarding);
        return;
    }
    auto *window = new OnboardingWindowController;
    window->setAttribute(Qt::WA_DeleteOnClose);
    m_onboarding = window;
    window->chooseSourceRequested = [this] {
        const QString path = askForSourceFolder();
        if (path.isNull())
            return;
        const bool valid = useSourceFolder(path, true);
        if (valid)
            refreshSettingsState();
        if (m_onboarding)
            m_onboarding->sourceDidChange(valid);
    };
    window->connectJiraRequested = [this] {
        if (!m_review)
            return;
        if (m_review->jiraConnected()) {
            m_onboarding->finish();
            return;
        }
        if (!hasSignInService()) {
            // The sign-in service is entered in Settings; set-up can be finished from there later.
            settings();
            m_settingsWindow->showPane(QStringLiteral("advanced"));
            return;
        }
        m_review->connectJira();
    };
    present(window);
}
