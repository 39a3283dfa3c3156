#include "app/promptlogic.h"

#include "records/draft.h"
#include "records/promptresult.h"
#include "records/session.h"
#include "source/logparser.h"
#include "worklogs/engine.h"

#include <QSettings>

namespace
{

const QString kAskToLog = QStringLiteral("AskToLogOnIssueSwitch");
const QString kAsNotifications = QStringLiteral("PromptsAsNotifications");
const QString kLastDay = QStringLiteral("WorkdayReminderLastDay");

qint64 integer(const QVariantMap &record, const QString &key)
{
    return record.value(key).toLongLong();
}

bool askToLog()
{
    // On unless the user turned it off.
    return QSettings().value(kAskToLog, true).toBool();
}

bool call(const std::function<bool()> &function)
{
    return function && function();
}

} // namespace

QString HLPromptTitle(qint64 seconds, const QString &issue)
{
    return QStringLiteral("Log %1 to %2?").arg(JRDurationText(seconds), issue);
}

QString HLLoggedText(qint64 seconds, const QString &issue)
{
    return QStringLiteral("Logged %1 to %2").arg(JRDurationText(seconds), issue);
}

QString HLCouldNotLogText(qint64 seconds, const QString &issue)
{
    return QStringLiteral("Couldn't log %1 to %2").arg(JRDurationText(seconds), issue);
}

QString HLIssueListText(const QStringList &issues)
{
    if (issues.size() < 3)
        return issues.join(QStringLiteral(" and "));
    return QStringLiteral("%1 and %2 more").arg(issues.first()).arg(issues.size() - 1);
}

PromptContent HLRenderLogPrompt(const QVariantMap &result, const QString &site)
{
    const QVariantMap post = result.value(PromptResultKey::kPost).toMap();
    PromptContent content;
    content.kind = PromptContent::Kind::LogPrompt;
    content.title = HLPromptTitle(JRPostSeconds(post), post.value(DraftKey::kIssue).toString());
    const qint64 existing = integer(post, DraftKey::kExisting);
    const qint64 sessions = post.contains(DraftKey::kCombinedCount) ? integer(post, DraftKey::kCombinedCount) : 1;
    content.details = {
        {QStringLiteral("Already in Jira"), existing > 0 ? JRDurationText(existing) : QStringLiteral("nothing yet")},
        {QStringLiteral("Sessions"), QStringLiteral("%1 today").arg(sessions)},
        {QStringLiteral("Comment"), post.value(DraftKey::kComment).toString()},
        {QStringLiteral("Site"), site},
    };
    if (!result.value(PromptResultKey::kManualMatches).toList().isEmpty())
        content.notice = QStringLiteral("Jira may already have this time, logged by hand.");
    content.primaryTitle = QStringLiteral("Log now");
    return content;
}

WorkdaySummary HLWorkdaySummary(const QVariantList &resolvedSessions, const QDateTime &day)
{
    QVariantList candidates;
    for (const QVariant &item : JRBuildDrafts(resolvedSessions, day)) {
        const QVariantMap draft = item.toMap();
        const QString issue = draft.value(DraftKey::kIssue).toString();
        if (!draft.value(DraftKey::kJiraExclusion).toMap().isEmpty() || draft.value(DraftKey::kSourceRunning).toBool()
            || issue.isEmpty() || issue == SessionKey::kUnassigned || integer(draft, DraftKey::kRemainingSeconds) <= 0)
            continue;
        candidates.append(draft);
    }
    WorkdaySummary summary;
    for (const QVariant &item : JRWorklogsToPost(candidates)) {
        const QVariantMap worklog = item.toMap();
        const qint64 seconds = JRPostSeconds(worklog);
        if (seconds <= 0)
            continue;
        summary.seconds += seconds;
        ++summary.worklogs;
        const QString issue = worklog.value(DraftKey::kIssue).toString();
        if (!summary.issues.contains(issue))
            summary.issues.append(issue);
    }
    if (summary.worklogs == 0)
        return summary;
    summary.title = QStringLiteral("%1 not in Jira yet").arg(JRDurationText(summary.seconds));
    summary.subtitle
        = QStringLiteral("%1 worklog%2 · %3")
              .arg(summary.worklogs)
              .arg(summary.worklogs == 1 ? QString() : QStringLiteral("s"), HLIssueListText(summary.issues));
    return summary;
}

LogPromptCoordinator::LogPromptCoordinator(LogPromptHost host, const Clock *clock, QObject *parent)
    : QObject(parent)
    , m_host(std::move(host))
    , m_clock(clock)
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, [this] { observeSwitch(m_sessions, m_tracking); });
}

void LogPromptCoordinator::setPresenters(PromptPresenter *popup, PromptPresenter *notification)
{
    m_popup = popup;
    m_notification = notification;
    for (PromptPresenter *presenter : {popup, notification}) {
        if (!presenter)
            continue;
        presenter->primaryAction = [this] { primaryPressed(); };
        presenter->later = [this] { laterPressed(); };
        presenter->openWorklogs = [this] {
            dismissPrompt();
            if (m_host.openWorklogs)
                m_host.openWorklogs();
        };
    }
}

QDateTime LogPromptCoordinator::now() const
{
    return (m_clock ? *m_clock : Clock::shared()).wallNow();
}

PromptPresenter *LogPromptCoordinator::presenter() const
{
    if (m_notification && (QSettings().value(kAsNotifications, false).toBool() || !m_popup))
        return m_notification;
    return m_popup;
}

bool LogPromptCoordinator::promptVisible() const
{
    return (m_popup && m_popup->visible()) || (m_notification && m_notification->visible());
}

void LogPromptCoordinator::dismissPrompt()
{
    const bool wasVisible = promptVisible();
    for (PromptPresenter *presenter : {m_popup, m_notification}) {
        if (presenter && presenter->visible())
            presenter->dismiss();
    }
    m_promptSession.clear();
    m_result.clear();
    if (wasVisible)
        Q_EMIT promptDismissed();
}

void LogPromptCoordinator::show(const PromptContent &content)
{
    m_shownKind = content.kind;
    if (PromptPresenter *target = presenter())
        target->show(content);
    Q_EMIT promptShown(content);
}

void LogPromptCoordinator::forgetPending()
{
    m_pending.clear();
    m_waitingSince = QDateTime();
    m_comparing = false;
}

void LogPromptCoordinator::observeSwitch(const QVariantList &sessions, const TrackingState &tracking)
{
    m_sessions = sessions;
    m_tracking = tracking;
    m_timer.stop();

    if (!askToLog() || !call(m_host.isConnected)) {
        m_observer.reset();
        forgetPending();
        m_earlyRunning = false;
        m_early = {};
        if (!call(m_host.posting))
            dismissPrompt();
        return;
    }

    const QString issue = QString::fromStdString(tracker::issue(tracking.description.toStdString()));
    const QDateTime at = now();
    const QVariantMap ended = m_observer.observe(sessions, tracking.active, tracking.live,
        issue.isEmpty() ? SessionKey::kUnassigned : issue, tracking.startMs, tracking.project, at);
    if (!ended.isEmpty()) {
        m_pending = ended;
        m_waitingSince = at;
        m_comparing = false;
        Q_EMIT sessionEnded(ended);
    } else if (!m_observer.settling().isEmpty() && m_pending.isEmpty()) {
        checkEarly(m_observer.settling());
    }
    offerWaitingSession();
    scheduleSwitchTimer();
}

void LogPromptCoordinator::checkEarly(const QVariantMap &session)
{
    if (m_earlyRunning || earlyCheckCovers(session) || !call(m_host.readyForPrompt) || promptVisible()
        || !m_host.comparePromptSession)
        return;
    m_earlyRunning = true;
    const int generation = ++m_generation;
    const QString key = JRSourceKey(session);
    m_earlyKey = key;
    const qint64 end = integer(session, SessionKey::kEndMs);
    m_host.comparePromptSession(session, daySessions(session), [this, generation, key, end](const QVariantMap &result) {
        if (generation != m_generation)
            return;
        m_earlyRunning = false;
        m_early = {key, end, result};
        offerWaitingSession();
    });
}

bool LogPromptCoordinator::earlyCheckCovers(const QVariantMap &session) const
{
    return !m_early.sourceKey.isNull() && m_early.sourceKey == JRSourceKey(session)
        && m_early.endMs == integer(session, SessionKey::kEndMs);
}

void LogPromptCoordinator::offerWaitingSession()
{
    if (m_pending.isEmpty())
        return;
    // Deliberate: a prompt a minute after the switch would be about something the user has moved on from.
    if (m_waitingSince.secsTo(now()) > kMaxWaitSeconds) {
        forgetPending();
        return;
    }
    if (promptVisible())
        return;
    // An early check of this very session is on its way; its answer will offer it.
    if (m_earlyRunning && m_earlyKey == JRSourceKey(m_pending))
        return;
    if (earlyCheckCovers(m_pending)) {
        const QVariantMap session = m_pending;
        const QVariantMap result = m_early.result;
        m_early = {};
        forgetPending();
        showPromptResult(session, result);
        return;
    }
    if (m_comparing || !call(m_host.readyForPrompt) || !m_host.comparePromptSession)
        return;
    m_comparing = true;
    const int generation = ++m_generation;
    const QVariantMap session = m_pending;
    m_host.comparePromptSession(session, daySessions(session), [this, generation, session](const QVariantMap &result) {
        if (generation != m_generation)
            return;
        forgetPending();
        showPromptResult(session, result);
    });
}

void LogPromptCoordinator::showPromptResult(const QVariantMap &session, const QVariantMap &result)
{
    const QVariantMap post = result.value(PromptResultKey::kPost).toMap();
    if (result.contains(PromptResultKey::kError) || !result.value(PromptResultKey::kEndedEligible).toBool()
        || post.isEmpty()) {
        dismissPrompt();
        return;
    }
    // The session as it was compared, when the host says: "Log now" holds the current session against it.
    const QVariantMap compared = result.value(PromptResultKey::kSession).toMap();
    m_promptSession = compared.isEmpty() ? session : compared;
    m_result = result;
    PromptContent content = HLRenderLogPrompt(result, m_host.siteName ? m_host.siteName() : QString());
    show(content);
}

void LogPromptCoordinator::scheduleSwitchTimer()
{
    const QDateTime at = now();
    const QDateTime settles = m_observer.settlesAt();
    qint64 ms = -1;
    if (settles.isValid() && at.msecsTo(settles) > 0)
        ms = at.msecsTo(settles) + 50;
    else if (!m_pending.isEmpty() || settles.isValid())
        ms = 1000;
    if (ms < 0)
        return;
    m_timerDue = at.addMSecs(ms);
    m_timer.start(int(ms));
}

QVariantList LogPromptCoordinator::daySessions(const QVariantMap &session) const
{
    const QString date = session.value(SessionKey::kDate).toString();
    QVariantList day;
    for (const QVariant &item : m_sessions) {
        if (item.toMap().value(SessionKey::kDate).toString() == date)
            day.append(item);
    }
    return day;
}

QVariantMap LogPromptCoordinator::currentSession(const QVariantMap &session) const
{
    if (m_host.resolveSession)
        return m_host.resolveSession(session);
    const QString identity = TaskSwitchObserver::identity(session);
    for (const QVariant &item : m_sessions) {
        if (TaskSwitchObserver::identity(item.toMap()) == identity)
            return item.toMap();
    }
    return {};
}

void LogPromptCoordinator::primaryPressed()
{
    if (m_shownKind == PromptContent::Kind::WorkdayReminder) {
        dismissPrompt();
        if (m_host.openWorklogs)
            m_host.openWorklogs();
        return;
    }
    logPrompt();
}

void LogPromptCoordinator::laterPressed()
{
    // Nothing is written: the time stays in Worklogs.
    dismissPrompt();
}

void LogPromptCoordinator::logPrompt()
{
    const QVariantMap session = m_promptSession;
    const QVariantMap result = m_result;
    const auto refuse = [this] { dismissPrompt(); };
    if (session.isEmpty() || result.isEmpty() || call(m_host.busy) || !m_host.postPrompt)
        return refuse();

    // The user may have edited the session after the prompt opened; what was shown is what may be posted.
    const QVariantMap current = currentSession(session);
    if (current.isEmpty() || JRSourceKey(current) != JRSourceKey(session)
        || current.value(SessionKey::kComment).toString() != session.value(SessionKey::kComment).toString()
        || integer(current, SessionKey::kEndMs) != integer(session, SessionKey::kEndMs)
        || !current.value(SessionKey::kJiraExclusion).toMap().isEmpty())
        return refuse();
    if (m_tracking.active && m_tracking.live && m_tracking.project == integer(session, SessionKey::kProject)
        && qint64(m_tracking.startMs) == integer(session, SessionKey::kStartMs))
        return refuse();

    dismissPrompt();
    const QVariantMap post = result.value(PromptResultKey::kPost).toMap();
    const qint64 seconds = JRPostSeconds(post);
    const QString issue = post.value(DraftKey::kIssue).toString();
    m_host.postPrompt(result, [this, seconds, issue](bool ok, const QString &) {
        const QString text = ok ? HLLoggedText(seconds, issue) : HLCouldNotLogText(seconds, issue);
        if (PromptPresenter *target = presenter())
            target->showOutcome(text, ok);
        Q_EMIT posted(ok, text);
    });
}

void LogPromptCoordinator::checkWorkdayEnd()
{
    if (!JRWorkdayReminderEnabled() || !call(m_host.isConnected) || promptVisible() || call(m_host.busy)
        || call(m_host.posting) || (m_tracking.active && m_tracking.live))
        return;
    const QDateTime at = now();
    const int weekday = at.date().dayOfWeek() % 7 + 1; // Qt: Monday 1 … Sunday 7; here Sunday 1 … Saturday 7
    if (!JRWorkdayIncludesWeekday(weekday))
        return;
    if (at.time().hour() * 60 + at.time().minute() < JRWorkdayEndMinutes())
        return;
    const QString key = QString::asprintf("%.0f", double(at.date().startOfDay().toSecsSinceEpoch()));
    QSettings settings;
    // Once per calendar day, deliberately even when dismissed.
    if (settings.value(kLastDay).toString() == key)
        return;
    settings.setValue(kLastDay, key);
    showWorkdaySummary();
}

void LogPromptCoordinator::showWorkdaySummary()
{
    const QDateTime at = now();
    // Only today's sessions count; resolving the whole history first would cost for nothing.
    const qint64 dayStart = at.date().startOfDay().toMSecsSinceEpoch();
    const qint64 dayEnd = at.date().addDays(1).startOfDay().toMSecsSinceEpoch();
    QVariantList resolved;
    for (const QVariant &item : m_sessions) {
        QVariantMap session = item.toMap();
        const qint64 start = integer(session, SessionKey::kStartMs);
        if (start < dayStart || start >= dayEnd)
            continue;
        if (m_host.resolveSession) {
            session = m_host.resolveSession(session);
            if (session.isEmpty())
                continue;
        }
        resolved.append(session);
    }
    const WorkdaySummary summary = HLWorkdaySummary(resolved, at);
    if (summary.worklogs == 0)
        return;
    PromptContent content;
    content.kind = PromptContent::Kind::WorkdayReminder;
    content.title = summary.title;
    content.subtitle = summary.subtitle;
    content.primaryTitle = QStringLiteral("Review…");
    if (call(m_host.busy))
        content.disabledReason = QStringLiteral("Jira is busy — try again in a moment");
    m_promptSession.clear();
    m_result.clear();
    show(content);
}
