#pragma once

#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

#include <functional>
#include <memory>

class JiraReviewWindowController;
class LogNotificationSender;
class LogPromptCoordinator;
class TaskLogPromptController;
class MenuBarController;
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
    // Reads `path` from now on when it is a tracker folder; otherwise says why not and keeps the old one.
    bool useSourceFolder(const QString &path);
    void setStartAtLogin(bool enabled);

    qsizetype activityCount() const;
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
    // The instant status texts are measured at; the system clock unless set.
    std::function<QDateTime()> clock;

private:
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
    bool m_trayWaitFinished = false;
    int m_trimmedScan = 0;
};
