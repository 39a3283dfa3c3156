#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

class QThread;

// A serial background queue: one worker thread that runs submitted work in order, one item at a time.
// Results go back to the main thread with QMetaObject::invokeMethod(context, ..., Qt::QueuedConnection).
class SerialQueue
{
public:
    explicit SerialQueue(const QString &label);
    ~SerialQueue();
    SerialQueue(const SerialQueue &) = delete;
    SerialQueue &operator=(const SerialQueue &) = delete;

    const QString &label() const { return m_label; }

    // Runs work on the queue's thread after everything submitted before it.
    void async(std::function<void()> work);

    // Runs work on the queue's thread and waits for it. Never call it from the queue's own thread.
    void sync(const std::function<void()> &work);

    // True when called from this queue's worker thread.
    bool isCurrent() const;

    // Blocks until everything submitted so far has run (tests and orderly shutdown).
    void drain();

private:
    QString m_label;
    QThread *m_thread = nullptr;
    QObject *m_worker = nullptr;
};
