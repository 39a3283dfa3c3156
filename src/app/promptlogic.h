#pragma once

// The log prompt and the workday reminder without any window: when to offer a finished session, what the
// prompt says, when "Log now" is refused, and the once-a-day reminder of time not yet in Jira. Widgets (the
// popup at the tray icon) and desktop notifications only present what this decides.

#include "platform/clock.h"
#include "source/taskswitchobserver.h"

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QPair>
#include <QString>
#include <QTimer>
#include <QVariantList>
#include <QVariantMap>

#include <functional>

// What a prompt shows. `details` are label/value rows; an empty `disabledReason` means the primary button
// may be pressed.
struct PromptContent {
    enum class Kind { LogPrompt, WorkdayReminder };
    Kind kind = Kind::LogPrompt;
    QString title;
    QString subtitle;
    QList<QPair<QString, QString>> details;
    QString notice;
    QString primaryTitle;
    QString disabledReason;
};

// Shows prompts: the popup at the tray icon, or a desktop notification. The presenter calls back through the
// three functions; it never decides anything itself.
class PromptPresenter
{
public:
    virtual ~PromptPresenter() = default;
    virtual bool visible() const = 0;
    virtual void show(const PromptContent &content) = 0;
    virtual void dismiss() = 0;
    // A short outcome after "Log now" ("Logged 1h 20m to ABC-12"); `ok` false for a failure.
    virtual void showOutcome(const QString &text, bool ok) = 0;

    std::function<void()> primaryAction;
    std::function<void()> later;
    std::function<void()> openWorklogs;
};

// Texts. Durations are the duration text users read everywhere ("1h 20m").
QString HLPromptTitle(qint64 seconds, const QString &issue); // "Log %1 to %2?"
QString HLLoggedText(qint64 seconds, const QString &issue);
QString HLCouldNotLogText(qint64 seconds, const QString &issue);
// "A and B", "A" or "A and 3 more".
QString HLIssueListText(const QStringList &issues);
// The rendered log prompt for a comparison result ("post", "manual_matches", …); `site` is the site's name.
PromptContent HLRenderLogPrompt(const QVariantMap &result, const QString &site);

// The day's worklogs not yet in Jira: from today's resolved sessions to what would be posted.
struct WorkdaySummary {
    qint64 seconds = 0;
    QStringList issues; // in order, each once
    int worklogs = 0;
    QString title; // "3h 10m not in Jira yet"
    QString subtitle; // "2 worklogs · ABC-1 and ABC-2"
};
WorkdaySummary HLWorkdaySummary(const QVariantList &resolvedSessions, const QDateTime &day);

// What the rest of the application tells the prompt. Every function must be set except where noted.
struct LogPromptHost {
    using CompareCompletion = std::function<void(const QVariantMap &result)>;
    using PostCompletion = std::function<void(bool ok, const QString &error)>;

    std::function<bool()> isConnected;
    std::function<bool()> busy;
    std::function<bool()> posting;
    std::function<bool()> readyForPrompt;
    // Compares the session's day with Jira; the completion gets the prompt result and runs on the main thread.
    // A result may carry the session as it was compared ("session"); "Log now" then holds the current session
    // against that.
    std::function<void(const QVariantMap &session, const QVariantList &daySessions, CompareCompletion)>
        comparePromptSession;
    // Posts the result's "post" worklog; runs only after "Log now".
    std::function<void(const QVariantMap &result, PostCompletion)> postPrompt;
    // The session as it resolves now (issue, comment, exclusion); empty when it is gone. Optional: without it
    // the latest published record is used as it stands.
    std::function<QVariantMap(const QVariantMap &session)> resolveSession;
    // The selected site's name for the "Site" row. Optional.
    std::function<QString()> siteName;
    // Opens the Worklogs window. Optional.
    std::function<void()> openWorklogs;
};

// The tracker's current state, as the live monitor publishes it.
struct TrackingState {
    bool active = false; // the tracker reports a running task
    bool live = false; // and that was confirmed live
    QString description;
    qint64 project = 0;
    double startMs = 0;
};

// Drives the log prompt and the workday reminder. Lives on the main thread.
class LogPromptCoordinator : public QObject
{
    Q_OBJECT

public:
    static constexpr qint64 kMaxWaitSeconds = 60;

    // `clock` (not owned; null: the shared clock) gives the instants the prompts and the reminder are timed at.
    explicit LogPromptCoordinator(LogPromptHost host, const Clock *clock = nullptr, QObject *parent = nullptr);

    // The popup, and the notification sender used instead when "PromptsAsNotifications" is on. Not owned;
    // either may be null.
    void setPresenters(PromptPresenter *popup, PromptPresenter *notification);

    // On every monitor change: the published sessions (newest first) and the tracking state.
    void observeSwitch(const QVariantList &sessions, const TrackingState &tracking);
    // On the status timer.
    void checkWorkdayEnd();
    void showWorkdaySummary();

    // The buttons.
    void logPrompt();
    void laterPressed();
    void primaryPressed();

    bool promptVisible() const;
    bool hasPendingSwitch() const { return !m_pending.isEmpty(); }
    int generation() const { return m_generation; }
    // When the switch timer fires next; invalid when it is not running.
    QDateTime switchTimerDue() const { return m_timer.isActive() ? m_timerDue : QDateTime(); }

Q_SIGNALS:
    void promptShown(const PromptContent &content);
    void promptDismissed();
    // The observer reported a finished session that may be offered.
    void sessionEnded(const QVariantMap &session);
    void posted(bool ok, const QString &text);

private:
    QDateTime now() const;
    PromptPresenter *presenter() const;
    void dismissPrompt();
    void show(const PromptContent &content);
    void forgetPending();
    void checkEarly(const QVariantMap &session);
    bool earlyCheckCovers(const QVariantMap &session) const;
    void offerWaitingSession();
    void showPromptResult(const QVariantMap &session, const QVariantMap &result);
    void scheduleSwitchTimer();
    QVariantList daySessions(const QVariantMap &session) const;
    QVariantMap currentSession(const QVariantMap &session) const;

    LogPromptHost m_host;
    const Clock *m_clock = nullptr;
    PromptPresenter *m_popup = nullptr;
    PromptPresenter *m_notification = nullptr;
    TaskSwitchObserver m_observer;

    QVariantList m_sessions;
    TrackingState m_tracking;

    QVariantMap m_pending;
    QDateTime m_waitingSince;
    int m_generation = 0;
    bool m_comparing = false;
    // The answer of an early comparison, kept until the session it was made for is offered.
    struct EarlyCheck {
        QString sourceKey; // null = none
        qint64 endMs = 0;
        QVariantMap result;
    };
    EarlyCheck m_early;
    bool m_earlyRunning = false;
    QString m_earlyKey;

    PromptContent::Kind m_shownKind = PromptContent::Kind::LogPrompt;
    QVariantMap m_promptSession;
    QVariantMap m_result;

    QTimer m_timer;
    QDateTime m_timerDue;
};
