#pragma once

#include <QObject>
#include <QString>
#include <QVariantList>
#include <functional>

class QMainWindow;
class QMenu;

// The Worklogs window: reviews the tracked sessions of a period, checks them against Jira and posts the ticked
// ones. The application shell owns one controller for the whole run; the window itself is created with the
// controller and only shown on demand, so the shell can give it the menu bar before it is ever seen.
class JiraReviewWindowController : public QObject
{
    Q_OBJECT

public:
    // `store` is the support folder: the history store, receipts, comparisons and assignments live there.
    explicit JiraReviewWindowController(const QString &store, QObject *parent = nullptr);
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
    QString statusText() const;
    // Renders the window as it is on screen into a PNG; false when it cannot be written.
    bool writeSnapshot(const QString &path) const;

    std::function<void()> assignmentsDidChange;
    std::function<void()> connectionDidChange;
    std::function<QString(const QString &issue)> titleForIssue;

signals:
    void postingChanged(bool posting);
    void statusChanged();

private:
    struct Private;
    Private *d;
};
