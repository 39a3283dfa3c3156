#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <functional>

struct sqlite3;

// Keeps a tracker folder the way the real tracker does: "Stintwatch.db" in WAL mode with one table per
// account ("<account>_activity") and an "application.log" with bracketed local timestamps, [Info] lines the
// program reacts to and other noise. The open activity has an end below its start until it is stopped.
// It only ever touches the folder it was given.
class SimTracker
{
public:
    explicit SimTracker(const QString &folder, const QString &account = QStringLiteral("1001_activity"));
    ~SimTracker();
    SimTracker(const SimTracker &) = delete;
    SimTracker &operator=(const SimTracker &) = delete;

    // The instant written into the log and the database; the system clock unless set.
    void setClock(std::function<QDateTime()> clock);
    QDateTime now() const;

    QString folder() const { return m_folder; }
    QString databasePath() const;
    QString logPath() const;
    QString account() const { return m_account; }
    void setAccount(const QString &account) { m_account = account; }

    // Creates the folder, the database (WAL, the account's table plus unrelated tables) and the log.
    void create();
    void addAccount(const QString &table);

    // Starts tracking: a new open activity, "Tracking started" and the description line. Returns its id.
    qint64 start(qint64 project, const QString &description);
    // Stores a new description on the open activity and logs it.
    void describe(const QString &description);
    // The service extends the open activity and logs the "Service timeout" line.
    void heartbeat();
    // Writes the open activity's end and logs "Tracking stopped".
    void stop();
    // Stops the open activity and starts another, as the tracker does on an issue switch.
    qint64 switchTo(qint64 project, const QString &description);

    // Id and project of the open activity, 0 when none.
    qint64 openActivity() const;
    qint64 openProject() const;

    // Log helpers.
    void noise(int lines = 1);
    void appendLog(const QByteArray &bytes);
    void logLine(const QString &level, const QString &message);
    QByteArray timestamp() const;
    void rotateLog();
    void truncateLog();

    // Database helpers.
    void setEndOf(qint64 id, qint64 endMs);
    void replaceDatabase();
    void deleteDatabase();
    // Fills the account's table with `count` finished activities spread over the last `years` years.
    void generateHistory(int count, int years = 3);
    // Holds the database's exclusive lock so that readers fail with "database is locked" until unlock().
    void lock();
    void unlock();

private:
    sqlite3 *db();
    void exec(const char *sql);
    void closeDatabase();
    qint64 nowMs() const;
    qint64 queryInt(const QByteArray &sql) const;

    QString m_folder;
    QString m_account;
    std::function<QDateTime()> m_clock;
    sqlite3 *m_db = nullptr;
    int m_thread = 0x1a2c;
};
