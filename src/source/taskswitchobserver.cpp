#include "source/taskswitchobserver.h"

#include "platform/clock.h"

#include <algorithm>
#include <cmath>

namespace
{

constexpr qint64 kSettleMs = 2000;
constexpr qint64 kStaleMs = 60000;
constexpr qsizetype kOfferedCap = 1001;

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
    return session.value(QStringLiteral("source_account")).toString() + u'|'
        + QString::number(integer(session, QStringLiteral("project"))) + u'|'
        + QString::number(integer(session, QStringLiteral("local_id"))) + u'|'
        + QString::number(integer(session, QStringLiteral("start_ms")));
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

QVariantMap TaskSwitchObserver::observe(const QVariantList &sessions, bool active, bool live, const QString &issue,
    double started, qint64 project, const QDateTime &now)
{
    const qint64 monotonic = (m_clock ? *m_clock : Clock::shared()).monotonicMs();
    if (!live) {
        reset();
        return {};
    }

    QVariantMap current;
    if (active) {
        for (const QVariant &item : sessions) {
            const QVariantMap record = item.toMap();
            if (record.value(QStringLiteral("issue")).toString() == issue
                && integer(record, QStringLiteral("project")) == project
                && std::fabs(double(integer(record, QStringLiteral("start_ms"))) - started) < 1000.0) {
                current = record;
                break;
            }
        }
    }

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

    QVariantMap finished;
    for (const QVariant &item : sessions) {
        const QVariantMap record = item.toMap();
        if (identity(record) == pendingIdentity) {
            finished = record;
            break;
        }
    }
    if (finished.isEmpty())
        return {};

    if (finished.value(QStringLiteral("issue")).toString() != m_pending.value(QStringLiteral("issue")).toString()) {
        m_pending.clear();
        return {};
    }

    const qint64 endMs = integer(finished, QStringLiteral("end_ms"));
    if (endMs <= integer(finished, QStringLiteral("start_ms")))
        return {};
    // An end written well after the switch belongs to something else than this switch.
    if (endMs > m_changed.toMSecsSinceEpoch() + kSettleMs)
        return {};

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
