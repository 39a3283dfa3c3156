#pragma once

#include <QDateTime>
#include <QSet>
#include <QString>
#include <QVariantList>
#include <QVariantMap>

class Clock;

// Turns changes of the tracked issue into at most one offer per finished session. The application feeds it
// after every monitor update; nothing is decided without a live confirmation from the monitor.
class TaskSwitchObserver
{
public:
    // The clock's monotonic time measures how long ago the switch was, so that setting the wall clock does not
    // hold back or hurry an offer. Not owned; nullptr means Clock::shared().
    explicit TaskSwitchObserver(const Clock *clock = nullptr);

    // Returns the session record that has just ended and may be offered for logging, or an empty map.
    // `started` is the current interval's start in ms since 1970.
    QVariantMap observe(const QVariantList &sessions, bool active, bool live, const QString &issue, double started,
        qint64 project, const QDateTime &now);

    // Forgets the current switch but not which sessions were already offered.
    void reset();

    // The finished record waiting for the settling time to pass, or an empty map.
    QVariantMap settling() const { return m_settling; }
    // When the caller should observe again while a switch is pending (wall time); invalid otherwise.
    QDateTime settlesAt() const;

    // "source_account|project|local_id|start_ms", the key that says two records are the same session.
    static QString identity(const QVariantMap &session);

private:
    // Remembers a change of issue, or the end of tracking, as the pending switch.
    void noteSwitch(
        bool active, const QString &issue, const QVariantMap &current, const QDateTime &now, qint64 monotonic);
    // Whether the finished record ended when the switch happened, not later.
    bool endedAtSwitch(const QVariantMap &finished) const;
    // The finished record once the switch settled and it was not offered before; else empty.
    QVariantMap offer(const QVariantMap &finished, const QString &pendingIdentity, qint64 sinceChange);

    QVariantMap m_previous;
    QVariantMap m_pending;
    QString m_issue;
    bool m_wasActive = false;
    QDateTime m_changed; // wall time of the switch, compared with the ends the tracker writes
    qint64 m_changedMonotonic = 0; // monotonic time of the switch, for how long ago it was
    const Clock *m_clock = nullptr;
    QSet<QString> m_offered;
    QVariantMap m_settling;
};
