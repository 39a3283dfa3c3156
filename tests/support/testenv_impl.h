#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QThread>

template<typename Condition> bool testenv::waitFor(Condition condition, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return condition();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(2);
    }
    return true;
}
