#pragma once

#include <QDateTime>
#include <QMutex>

// The one source of "now" in the program, injectable so that tests can move time.
//
// Two kinds of time, never mixed:
// - wall time (`wallNow`, `wallMs`): the calendar time the user sees, for timestamps that are shown, stored or
//   compared with times written by other programs (log lines, database rows, Jira). It may jump when the user
//   or NTP sets the clock.
// - monotonic time (`monotonicMs`): milliseconds since an arbitrary origin that only ever move forward at a
//   steady rate, for intervals ("15 s since the last fallback scan", "2 s since the switch"). A clock that is
//   set back or forward does not change it.
//
// Code that needs time takes a `const Clock *` (or reference) where tests need to control it and otherwise
// uses `Clock::shared()`, the process-wide default: the system clock unless a test installed another one
// with `Clock::setShared`. Every implementation may be called from any thread.
class Clock
{
public:
    virtual ~Clock() = default;

    // Local wall time.
    virtual QDateTime wallNow() const = 0;
    // Steady milliseconds since an arbitrary origin; only differences mean anything.
    virtual qint64 monotonicMs() const = 0;

    // Wall time as milliseconds since 1970.
    qint64 wallMs() const { return wallNow().toMSecsSinceEpoch(); }

    // The real clocks of the machine.
    static const Clock &system();
    // The process-wide default: `system()` unless `setShared` installed another clock.
    static const Clock &shared();
    // Installs `clock` as the process-wide default (not owned; it must outlive its use); nullptr restores the
    // system clock.
    static void setShared(const Clock *clock);
};

// The machine's clocks: QDateTime::currentDateTime and CLOCK_MONOTONIC.
class SystemClock : public Clock
{
public:
    QDateTime wallNow() const override;
    qint64 monotonicMs() const override;
};

// A clock that moves only when told. Wall and monotonic time are set independently, so a clock that the user
// sets back (wall time jumps, monotonic time does not) can be simulated; `advance` moves both, as real time
// passing does.
class TestClock : public Clock
{
public:
    explicit TestClock(const QDateTime &wall = QDateTime::currentDateTime(), qint64 monotonic = 0);

    QDateTime wallNow() const override;
    qint64 monotonicMs() const override;

    void setWall(const QDateTime &wall);
    void advanceWall(qint64 ms);
    void setMonotonic(qint64 ms);
    void advanceMonotonic(qint64 ms);
    // Time passes: both clocks move by `ms`.
    void advance(qint64 ms);

private:
    mutable QMutex m_mutex;
    QDateTime m_wall;
    qint64 m_monotonic;
};
