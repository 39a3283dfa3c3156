#pragma once

#include <QMainWindow>
#include <QStringList>

#include <functional>
#include <memory>

class HLPaneView;
class IssueAssignments;
class IssueRulesTable;
class QAbstractButton;
class QActionGroup;
class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QStackedWidget;
class QTimeEdit;
class SignInServiceChoice;
class UpdateController;

// Settings: five panes chosen from a toolbar ("general", "jira", "reminders", "summary", "advanced"). The
// controls bind the preferences directly; what depends on the Jira connection arrives through the setters,
// and what needs the rest of the application goes out through the callbacks. The window fits its height to
// the pane shown.
class SettingsWindow : public QMainWindow
{
    Q_OBJECT

public:
    // `store`: the support folder holding the issue rules. `updates` is not owned and may be null.
    SettingsWindow(const QString &store, UpdateController *updates, QWidget *parent = nullptr);
    ~SettingsWindow() override;

    static QStringList paneIdentifiers();
    void showPane(const QString &identifier);
    QString currentPane() const;

    // Connection-dependent state. `sitesKnown` false: connected, but no site list yet.
    void setConnection(bool connected, const QStringList &siteNames, bool sitesKnown = true);
    void setBusy(bool busy);
    void setPosting(bool posting);
    void setSourcePath(const QString &path);
    // Reads the rules again (after Worklogs changed them).
    void reloadRules();

    std::function<void()> chooseSourceFolder;
    std::function<void()> connectJira;
    std::function<void()> disconnectJira;
    // After a new sign-in service was saved: sign Jira out and clear its checks.
    std::function<void()> signInServiceChanged;
    std::function<void()> exportDiagnostics;
    std::function<void()> assignmentsDidChange;
    std::function<QString(const QString &site)> siteName;
    // Replaces the confirmation dialogs in tests: (question, detail) → confirmed.
    std::function<bool(const QString &question, const QString &detail)> confirm;

    IssueRulesTable *rulesTable() const { return m_rules; }
    bool writeSnapshot(const QString &path);

Q_SIGNALS:
    // Summary or earnings settings changed ("HourloomSummaryChanged").
    void summaryChanged();

private:
    QWidget *buildGeneral();
    QWidget *buildJira();
    void addAccountRow(HLPaneView *pane);
    void addCheckingRow(HLPaneView *pane);
    void addPostingRow(HLPaneView *pane);
    void addRulesRow(HLPaneView *pane);
    // Runs one change of the issue rules; false when there is no rules file or the change failed. `reload`
    // reads the rules again before the rest of the application is told.
    bool changeRules(const std::function<void()> &change, bool reload);
    QWidget *buildReminders();
    QWidget *buildSummary();
    void addSummaryMenuRow(HLPaneView *pane);
    void addSummaryPeriodRows(HLPaneView *pane);
    void addEarningsRow(HLPaneView *pane);
    void addRateRow(HLPaneView *pane);
    void addConversionRow(HLPaneView *pane);
    // After a currency or the conversion changed: the rate is fetched again if due, and the summary redrawn.
    void ratePreferenceChanged();
    QWidget *buildAdvanced();
    void fitToPane();
    void refreshJira();
    void refreshUpdates();
    void refreshRate();
    void refreshSignIn();
    void commitRate();
    void applySignIn();
    bool ask(const QString &question, const QString &detail);
    void guardedToggle(QCheckBox *box, const std::function<void(bool)> &store);

    QString m_store;
    UpdateController *m_updates;
    std::unique_ptr<IssueAssignments> m_assignments;
    std::unique_ptr<SignInServiceChoice> m_signIn;
    bool m_connected = false;
    QStringList m_siteNames;
    bool m_sitesKnown = false;
    bool m_busy = false;
    bool m_posting = false;

    QStackedWidget *m_stack = nullptr;
    QActionGroup *m_paneActions = nullptr;
    QLabel *m_sourcePath = nullptr;
    QCheckBox *m_ignoreShort = nullptr;
    QCheckBox *m_hideShort = nullptr;
    QCheckBox *m_autoUpdates = nullptr;
    QPushButton *m_checkNow = nullptr;
    QLabel *m_updateStatus = nullptr;
    QLabel *m_updateHelp = nullptr;
    QCheckBox *m_startAtLogin = nullptr;
    QLabel *m_startAtLoginHelp = nullptr;
    QLabel *m_account = nullptr;
    QPushButton *m_accountButton = nullptr;
    QCheckBox *m_combine = nullptr;
    QCheckBox *m_fetchTitles = nullptr;
    QLabel *m_fetchTitlesHelp = nullptr;
    QLabel *m_postingMessage = nullptr;
    IssueRulesTable *m_rules = nullptr;
    QCheckBox *m_askToLog = nullptr;
    QComboBox *m_promptStyle = nullptr;
    QCheckBox *m_workday = nullptr;
    QTimeEdit *m_workdayEnd = nullptr;
    QCheckBox *m_weekends = nullptr;
    QLabel *m_remindersHelp = nullptr;
    QLabel *m_endOfDayHelp = nullptr;
    QLineEdit *m_rate = nullptr;
    QLabel *m_rateMessage = nullptr;
    QLabel *m_rateLine = nullptr;
    QComboBox *m_server = nullptr;
    QLineEdit *m_customServer = nullptr;
    QPushButton *m_apply = nullptr;
    QLabel *m_serverMessage = nullptr;
};
