#include "platform/clock.h"

#include <QMutexLocker>

#include <atomic>
#include <ctime>

namespace
{

std::atomic<const Clock *> sharedClock {nullptr};

} // namespace

const Clock &Clock::system()
{
    static const SystemClock clock;
    return clock;
}

const Clock &Clock::shared()
{
    const Clock *clock = sharedClock.load(std::memory_order_acquire);
    return clock ? *clock : system();
}

void Clock::setShared(const Clock *clock)
{
    sharedClock.store(clock, std::memory_order_release);
}

QDateTime SystemClock::wallNow() const
{
    return QDateTime::currentDateTime();
}

qint64 SystemClock::monotonicMs() const
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

TestClock::TestClock(const QDateTime &wall, qint64 monotonic)
    : m_wall(wall)
    , m_monotonic(monotonic)
{
}

QDateTime TestClock::wallNow() const
{
    QMutexLocker lock(&m_mutex);
    return m_wall;
}

qint64 TestClock::monotonicMs() const
{
    QMutexLocker lock(&m_mutex);
    return m_monotonic;
}

void TestClock::setWall(const QDateTime &wall)
{
    QMutexLocker lock(&m_mutex);
    m_wall = wall;
}

void TestClock::advanceWall(qint64 ms)
{
    QMutexLocker lock(&m_mutex);
    m_wall = m_wall.addMSecs(ms);
}

void TestClock::setMonotonic(qint64 ms)
{
    QMutexLocker lock(&m_mutex);
    m_monotonic = ms;
}

void TestClock::advanceMonotonic(qint64 ms)
{
    QMutexLocker lock(&m_mutex);
    m_monotonic += ms;
}

void TestClock::advance(qint64 ms)
{
    QMutexLocker lock(&m_mutex);
    m_wall = m_wall.addMSecs(ms);
    m_monotonic += ms;
}
