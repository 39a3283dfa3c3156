#pragma once

#include <QDate>
#include <QObject>
#include <QString>
#include <QVariantList>
#include <QVariantMap>
#include <functional>

class JiraClient;
class QMainWindow;
class QMenu;
class QModelIndex;
class QTreeView;
class QWidget;

// The Worklogs window: reviews the tracked sessions of a period, checks them against Jira and posts the ticked
// ones. The application shell owns one controller for the whole run; the window itself is created with the
// controller and only shown on demand, so the shell can give it the menu bar before it is ever seen.
class JiraReviewWindowController : public QObject
{
    Q_OBJECT

public:
    // `store` is the support folder: the history store, receipts, comparisons and assignments live there.
    explicit JiraReviewWindowController(const QString &store, QObject *parent = nullptr);
    // Keeps the Jira credentials under another secret-store service (tests that run side by side).
    JiraReviewWindowController(const QString &store, const QString &credentialService, QObject *parent = nullptr);
    ~JiraReviewWindowController() override;

    // The top-level window ("Worklogs"). The shell sets its menu bar; the controller never does.
    QMainWindow *window() const;
    // The header's "Columns" menu, which the shell also puts under View.
    QMenu *columnsMenu() const;

    // Shows (and raises) the window with these sessions; `updateSessions` replaces them while it is open.
    void showSessions(const QVariantList &sessions);
    void updateSessions(const QVariantList &sessions);
    bool isOpen() const;

    void calendarDayChanged();
    void checkJira();
    void requestAutomaticCheck();
    // File → Export History…: asks for a path, then writes the history file.
    void exportHistory();
    void connectJira();
    void disconnectJira();
    void connectionSettingsChanged();
    // Restores the stored connection and site; called once by the shell after the callbacks are set.
    void prepareConnection();

    bool posting() const;
    bool busy() const;
    // Whether Jira is signed in, and the sites offered to this account ("id", "name", "url"; empty until known).
    bool jiraConnected() const;
    QVariantList sites() const;
    // Reads the issue rules again after another window changed them, and redraws the rows.
    void reloadAssignments();
    QString statusText() const;
    // Renders the window as it is on screen into a PNG; false when it cannot be written.
    bool writeSnapshot(const QString &path) const;

    // The review day of the "Day" period (the window follows the calendar only while it shows today).
    void setReviewDay(const QDate &day);
    // The "Custom Range" period from `from` to `to`, both days included.
    void setRange(const QDate &from, const QDate &to);
    // "Post …": posts the ticked worklogs after the confirmation (re-checking Jira first when the last check
    // is over five minutes old).
    void post();
    // Selects one of the offered Jira sites by its cloud identifier.
    void selectSite(const QString &cloud);
    QString selectedCloud() const;
    // Writes the history file ("Export History…" without the save panel); false with the reason on failure.
    bool exportHistoryTo(const QString &path, QString *error) const;
    // The context menu of a row (caller owns it); its actions run the row commands.
    QMenu *contextMenu(const QModelIndex &index, QWidget *parent) const;
    QTreeView *tree() const;
    JiraClient &jiraClient() const;

    // The log prompt's side of Jira. Connected: signed in (and not signing in). Ready: a site is chosen and no
    // window operation is running, so a prompt comparison may start.
    bool isConnected() const;
    bool readyForPrompt() const;
    // The chosen site's name (its address when it has none); empty without a site.
    QString siteName() const;
    // The session as the window would resolve it now (issue, comment, exclusion).
    QVariantMap resolvePromptSession(const QVariantMap &session);
    using PromptCompletion = std::function<void(const QVariantMap &result)>;
    using PromptPostCompletion = std::function<void(bool ok, const QString &error)>;
    // Compares the worklog the ended session belongs to with Jira. The completion runs on the main thread with
    // {"post": the worklog that would be posted, "drafts": the compared drafts of the session's issue that day,
    // "eligible": those that may be posted, "ended_eligible", "manual_matches", "date", "account", "cloud",
    // "generation", "session": the session as compared}, or with "error" (and "detail") instead.
    void comparePromptSession(const QVariantMap &session, const QVariantList &daySessions, PromptCompletion completion);
    // Posts the result's "post" worklog against the comparison the user saw; refused while the window is busy.
    void postPrompt(const QVariantMap &result, PromptPostCompletion completion);

    std::function<void()> assignmentsDidChange;
    std::function<void()> connectionDidChange;
    std::function<QString(const QString &issue)> titleForIssue;
    // Replaces the post confirmation alert (title, text) -> confirmed; unset shows the alert.
    std::function<bool(const QString &title, const QString &text)> confirmPost;
    // Replace the session editor and the worklog picker dialogs (same results); unset shows the dialogs.
    std::function<QVariantMap(const QVariantMap &session, bool commentOnly)> editSession;
    std::function<QVariantMap(const QVariantList &candidates, const QString &issue, qint64 seconds)> chooseMatch;

signals:
    void postingChanged(bool posting);
    void statusChanged();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    struct Private;
    Private *d;
};
