#include "source/taskswitchobserver.h"

#include "platform/clock.h"
#include "records/session.h"

#include <algorithm>
#include <cmath>

namespace
{

constexpr qint64 kSettleMs = 2000;
constexpr qint64 kStaleMs = 60000;
constexpr qsizetype kOfferedCap = 1001;
// The tracker's interval and its session record start within a second of each other.
constexpr double kSameStartMs = 1000.0;

qint64 integer(const QVariantMap &record, const QString &key)
{
    return record.value(key).toLongLong();
}

} // namespace

TaskSwitchObserver::TaskSwitchObserver(const Clock *clock)
    : m_clock(clock)
{
}

QString TaskSwitchObserver::identity(const QVariantMap &session)
{
    return session.value(SessionKey::kSourceAccount).toString() + u'|'
        + QString::number(integer(session, SessionKey::kProject)) + u'|'
        + QString::number(integer(session, SessionKey::kLocalId)) + u'|'
        + QString::number(integer(session, SessionKey::kStartMs));
}

void TaskSwitchObserver::reset()
{
    m_settling.clear();
    m_previous.clear();
    m_pending.clear();
    m_issue.clear();
    m_wasActive = false;
    m_changed = QDateTime();
}

QDateTime TaskSwitchObserver::settlesAt() const
{
    if (m_pending.isEmpty() || !m_changed.isValid())
        return {};
    const Clock &clock = m_clock ? *m_clock : Clock::shared();
    const qint64 left = std::max<qint64>(0, kSettleMs - (clock.monotonicMs() - m_changedMonotonic));
    return clock.wallNow().addMSecs(left);
}

namespace
{

// The session record of the interval the tracker is running now; empty when the sessions do not have it yet.
QVariantMap runningRecord(const QVariantList &sessions, const QString &issue, double started, qint64 project)
{
    for (const QVariant &item : sessions) {
        const QVariantMap record = item.toMap();
        if (record.value(SessionKey::kIssue).toString() == issue && integer(record, SessionKey::kProject) == project
            && std::fabs(double(integer(record, SessionKey::kStartMs)) - started) < kSameStartMs)
            return record;
    }
    return {};
}

QVariantMap recordWithIdentity(const QVariantList &sessions, const QString &wanted)
{
    for (const QVariant &item : sessions) {
        const QVariantMap record = item.toMap();
        if (TaskSwitchObserver::identity(record) == wanted)
            return record;
    }
    return {};
}

} // namespace

QVariantMap TaskSwitchObserver::observe(const QVariantList &sessions, bool active, bool live, const QString &issue,
    double started, qint64 project, const QDateTime &now)
{
    const qint64 monotonic = (m_clock ? *m_clock : Clock::shared()).monotonicMs();
    if (!live) {
        reset();
        return {};
    }
    const QVariantMap current = active ? runningRecord(sessions, issue, started, project) : QVariantMap();
    noteSwitch(active, issue, current, now, monotonic);
    if (m_pending.isEmpty())
        return {};

    const qint64 sinceChange = monotonic - m_changedMonotonic;
    if (sinceChange > kStaleMs) {
        m_pending.clear();
        return {};
    }
    const QString pendingIdentity = identity(m_pending);
    if (!current.isEmpty() && identity(current) == pendingIdentity)
        return {};
    const QVariantMap finished = recordWithIdentity(sessions, pendingIdentity);
    if (finished.isEmpty())
        return {};
    if (finished.value(SessionKey::kIssue).toString() != m_pending.value(SessionKey::kIssue).toString()) {
        m_pending.clear();
        return {};
    }
    if (!endedAtSwitch(finished))
        return {};
    return offer(finished, pendingIdentity, sinceChange);
}

void TaskSwitchObserver::noteSwitch(
    bool active, const QString &issue, const QVariantMap &current, const QDateTime &now, qint64 monotonic)
{
    // An active observation without a matching record still compares issues.
    if (m_wasActive && (!active || issue != m_issue)) {
        m_pending = m_previous;
        m_changed = now;
        m_changedMonotonic = monotonic;
    }
    m_wasActive = active;
    m_issue = issue;
    m_previous = current;
    m_settling.clear();
}

bool TaskSwitchObserver::endedAtSwitch(const QVariantMap &finished) const
{
    const qint64 endMs = integer(finished, SessionKey::kEndMs);
    if (endMs <= integer(finished, SessionKey::kStartMs))
        return false;
    // An end written well after the switch belongs to something else than this switch.
    return endMs <= m_changed.toMSecsSinceEpoch() + kSettleMs;
}

QVariantMap TaskSwitchObserver::offer(const QVariantMap &finished, const QString &pendingIdentity, qint64 sinceChange)
{
    if (sinceChange < kSettleMs) {
        if (!m_offered.contains(pendingIdentity))
            m_settling = finished;
        return {};
    }
    m_pending.clear();
    if (m_offered.contains(pendingIdentity))
        return {};
    // A crude cap: forgetting old offers is harmless once that many sessions have passed.
    if (m_offered.size() >= kOfferedCap)
        m_offered.clear();
    m_offered.insert(pendingIdentity);
    return finished;
}
