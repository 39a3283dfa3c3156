#include "platform/serialqueue.h"

#include <QMetaObject>
#include <QSemaphore>
#include <QThread>

#include <exception>

SerialQueue::SerialQueue(const QString &label)
    : m_label(label)
    , m_thread(new QThread)
    , m_worker(new QObject)
{
    m_thread->setObjectName(label);
    m_worker->moveToThread(m_thread);
    m_thread->start();
}

SerialQueue::~SerialQueue()
{
    // Work already queued still runs before the thread stops (quit() alone may leave posted work undone).
    // The worker is deleted once its thread has ended, when nothing can reach it any more.
    if (!isCurrent())
        drain();
    m_thread->quit();
    m_thread->wait();
    delete m_worker;
    delete m_thread;
}

void SerialQueue::async(std::function<void()> work)
{
    QMetaObject::invokeMethod(
        m_worker, [work = std::move(work)] { work(); }, Qt::QueuedConnection);
}

void SerialQueue::sync(const std::function<void()> &work)
{
    Q_ASSERT(!isCurrent());
    QSemaphore done;
    std::exception_ptr failure;
    QMetaObject::invokeMethod(
        m_worker,
        [&] {
            try {
                work();
            } catch (...) {
                failure = std::current_exception();
            }
            done.release();
        },
        Qt::QueuedConnection);
    done.acquire();
    if (failure)
        std::rethrow_exception(failure);
}

bool SerialQueue::isCurrent() const
{
    return QThread::currentThread() == m_thread;
}

void SerialQueue::drain()
{
    sync([] {});
}
