#pragma once

#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVariantMap>

#include <functional>
#include <memory>

class InvoiceWindow;
class JiraReviewWindowController;
class LogNotificationSender;
class LogPromptCoordinator;
class TaskLogPromptController;
class MenuBarController;
class OnboardingWindowController;
class SettingsWindow;
class UpdateController;
class QMessageBox;
class QSettings;
class QTimer;
class StintwatchMonitor;
class StintwatchSourceAccess;

// Starts the application and owns what lives as long as it does: the live monitor, the task-switch observer,
// the Worklogs window controller and the status item. Keeps the status item current.
class AppDelegate : public QObject
{
    Q_OBJECT

public:
    // `source`: the tracker's folder, or a null string to use the one the user chose (or the default place).
    // `store`: the support folder. `smokeTest` arranges the whole-application smoke run.
    AppDelegate(const QString &source, const QString &store, bool smokeTest = false, QObject *parent = nullptr);
    ~AppDelegate() override;

    // Start-up. False when the history store cannot be created: the alert has been shown and the
    // application is to end.
    bool applicationDidFinishLaunching();
    void updateStatus();
    // What launching an already running Hourloom does: with no window visible, the Worklogs window opens.
    void reopen(bool hasVisibleWindows);

    void jira();
    void about();
    void quit();
    void checkJira();
    void exportHistory();
    void exportDiagnostics();
    void chooseStintwatchFolder();
    // Reads `path` from now on when it is a tracker folder; otherwise says why not (unless `quiet`) and keeps
    // the old one.
    bool useSourceFolder(const QString &path, bool quiet = false);
    void setStartAtLogin(bool enabled);

    // The windows beyond Worklogs, each made on first use and kept for the whole run.
    void settings();
    void invoice();
    void openOnboarding();
    // Opens the PDFs among `paths` in the invoice window (the last one shown); false when there was none.
    bool openFiles(const QStringList &paths);
    // The PDF files named on a command line (made absolute), in order.
    static QStringList pdfArguments(const QStringList &arguments);

    qsizetype activityCount() const;
    SettingsWindow *settingsWindow() const;
    InvoiceWindow *invoiceWindow() const;
    OnboardingWindowController *onboardingWindow() const;
    UpdateController *updateController() const { return m_updates; }
    JiraReviewWindowController *reviewController() const { return m_review; }
    MenuBarController *menuBar() const { return m_menuBar; }
    LogPromptCoordinator *prompts() const { return m_prompts; }
    TaskLogPromptController *promptPopup() const { return m_promptPopup; }
    LogNotificationSender *promptNotification() const { return m_promptNotification; }
    StintwatchMonitor *monitor() const { return m_monitor; }
    int statusIntervalMs() const;
    bool trayWaitFinished() const { return m_trayWaitFinished; }

    // Writes the diagnostics report whole, readable by the owner only.
    static bool writeReport(const QString &path, const QString &report, QString *error);

    // Shows an alert (title, detail); a message box unless replaced (tests record it instead).
    std::function<void(const QString &title, const QString &detail)> alert;
    // Called at start-up while onboarding has not been completed.
    std::function<void()> showOnboarding;
    // A finished session the user may want to log, decided by the task-switch observer of the log prompt
    // (which observes only while asking to log is on and Jira is connected).
    std::function<void(const QVariantMap &session)> switchOffered;
    // The secret-store service of the Jira credentials; the standard one unless set before start-up (tests
    // that run side by side).
    QString credentialService;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    // The update controller (start-up step 5), and the Settings, invoice and onboarding windows with their
    // menu items.
    void setUpUpdates();
    void setUpWindows();
    void refreshSettingsState();
    InvoiceWindow *ensureInvoiceWindow();
    // Asks for the tracker's folder; a null text when the user cancelled.
    QString askForSourceFolder();
    QString siteName(const QString &site) const;
    QString weeklyConversion(const QVariantList &summaryRows, const QDateTime &now, int period) const;

    void startMonitor(const QString &folder);
    void releaseScanMemory();
    void waitForTray();
    void showNoTrayHint();
    void showAlert(const QString &title, const QString &detail);
    QDateTime now() const;
    QVariantList sessionsMarkingRunning() const;

    // The log prompt and the workday reminder.
    void setUpPrompts();
    void observeForPrompts();
    void updatePromptPresenters();

    QString m_source;
    QString m_store;
    bool m_smokeTest = false;
    std::unique_ptr<QSettings> m_settings;
    std::unique_ptr<StintwatchSourceAccess> m_access;
    StintwatchMonitor *m_monitor = nullptr;
    JiraReviewWindowController *m_review = nullptr;
    MenuBarController *m_menuBar = nullptr;
    QTimer *m_timer = nullptr;
    LogPromptCoordinator *m_prompts = nullptr;
    TaskLogPromptController *m_promptPopup = nullptr;
    LogNotificationSender *m_promptNotification = nullptr;
    int m_notificationChoice = -1; // the "PromptsAsNotifications" value the presenters were chosen for
    QPointer<QMessageBox> m_about;
    UpdateController *m_updates = nullptr;
    std::unique_ptr<SettingsWindow> m_settingsWindow;
    std::unique_ptr<InvoiceWindow> m_invoiceWindow;
    QPointer<OnboardingWindowController> m_onboarding;
    QString m_settingsConnection; // the connection state Settings was last given
    bool m_trayWaitFinished = false;
    int m_trimmedScan = 0;
};
