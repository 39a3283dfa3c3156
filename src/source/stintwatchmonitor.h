#pragma once

#include <QDateTime>
#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantList>

#include <functional>
#include <memory>
#include <optional>

#include "platform/processlookup.h"

class Clock;
class QFileSystemWatcher;
class QTimer;
class SerialQueue;
class WakeNotifier;

namespace monitordetail
{
class EventClock;
struct LiveEvent;
} // namespace monitordetail

// Watches the tracker's folder and keeps the session list (always shown from the retained history), the
// period-summary rows and the live tracking state inferred from the tracker's log up to date. All file and
// database work runs on one serial background queue; every published field changes on the main thread only,
// followed by the changed() signal.
class StintwatchMonitor : public QObject
{
    Q_OBJECT
public:
    StintwatchMonitor(const QString &source, const QString &store, QObject *parent = nullptr);
    ~StintwatchMonitor() override;

    void start();
    // Stops watching and scanning until the next start(); a scan already running is finished but its result is
    // dropped. While stopped, refresh(), scan(), tick(), wake() and processChanged() do nothing.
    void stop();
    // Watches again and scans everything, after the user picked another folder.
    void refresh();
    bool stintwatchRunning() const;

    const QVariantList &rows() const { return m_rows; }
    const QVariantList &summaryRows() const { return m_summaryRows; }
    const QString &folder() const { return m_folder; }
    const QString &store() const { return m_store; }
    const QString &error() const { return m_error; }
    const QString &lastTimestamp() const { return m_lastTimestamp; }
    const QString &currentDescription() const { return m_currentDescription; }
    const QDateTime &started() const { return m_start; }
    qint64 project() const { return m_project; }
    int lastKind() const { return m_lastKind; }
    bool liveObserved() const { return m_liveObserved; }

    void notifyChange();

    // The clock for the live-state windows (wall time, compared with the log's timestamps) and for the
    // fallback interval (monotonic time). Not owned; nullptr, the default, means Clock::shared().
    void setClock(const Clock *clock);
    // How the tracker's process is looked up; HLTrackerProcessState() unless set. Where the answer is
    // "unknown" (a sandbox that cannot see the host's processes) the tracker's launch and quit are not
    // inferred and the live state is left to the log's evidence alone.
    void setProcessCheck(std::function<HLProcessState()> check);
    // The same with a plain yes or no.
    void setRunningCheck(std::function<bool()> running);
    HLProcessState trackerProcess() const;
    // Scans published so far, and whether one is running: for tests and measurements.
    int scanCount() const { return m_scanCount; }
    bool isBusy() const { return m_busy; }
    // Reads of the tracker's database and of the history store so far.
    int sourceReads() const;
    int storeReads() const;
    QStringList watchedPaths() const;

public slots:
    void scan(bool full);
    void tick();
    void wake();
    void processChanged();

signals:
    void changed();

private:
    struct Reader;
    struct ScanResult;

    void installWatchers();
    void scheduleScan();
    void watchedPathChanged(const QString &path);
    void publish(const ScanResult &result);
    void applyEvent(const monitordetail::LiveEvent &event, qint64 currentMs, monitordetail::EventClock &eventClock);
    bool checkTrackerProcess(); // false only when the tracker is known not to run
    QDateTime now() const;
    const Clock &clock() const;

    QVariantList m_rows;
    QVariantList m_summaryRows;
    QString m_folder;
    QString m_store;
    QString m_error;
    QString m_lastTimestamp;
    QString m_currentDescription;
    QDateTime m_start;
    qint64 m_project = 0;
    int m_lastKind = 0;
    bool m_liveObserved = false;
    bool m_stopped = false; // stop() was called and start() not since
    bool m_busy = false;
    bool m_pending = false;
    bool m_forcePending = false;
    bool m_scanScheduled = false;
    bool m_reinstallPending = false;
    QFileSystemWatcher *m_watcher = nullptr;
    QHash<QString, QString> m_watchStatus; // status of each watched path when last seen
    QTimer *m_timer = nullptr;
    WakeNotifier *m_wake = nullptr;
    std::optional<qint64> m_lastFallback; // monotonic ms of the last timer-driven rescan
    const Clock *m_clock = nullptr;
    std::function<HLProcessState()> m_processCheck;
    int m_trackerSeen = -1; // -1 unknown, else whether the tracker ran at the last look
    // The last look through the machine's processes and when it was taken (monotonic ms): one look serves every
    // question asked within a short while, since each walks every process of the machine.
    mutable std::optional<std::pair<qint64, HLProcessState>> m_lastLook;
    int m_scanCount = 0;
    // Owned by the queue's thread from the moment a scan is submitted; shared so queued work keeps it alive.
    std::shared_ptr<Reader> m_reader;
    std::unique_ptr<SerialQueue> m_queue;
};
