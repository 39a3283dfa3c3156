#include "simtracker.h"

#include <QDir>
#include <QFile>
#include <QLocale>
#include <QRandomGenerator>

#include <sqlite3.h>

#include <cstdio>
#include <stdexcept>

namespace
{

QByteArray quoted(const QString &name)
{
    QByteArray text = name.toUtf8();
    text.replace('"', "\"\"");
    return '"' + text + '"';
}

class Stmt
{
public:
    Stmt(sqlite3 *db, const QByteArray &sql)
        : m_db(db)
    {
        if (sqlite3_prepare_v2(db, sql.constData(), int(sql.size()), &m_stmt, nullptr) != SQLITE_OK)
            throw std::runtime_error(sqlite3_errmsg(db));
    }
    ~Stmt() { sqlite3_finalize(m_stmt); }
    Stmt(const Stmt &) = delete;
    Stmt &operator=(const Stmt &) = delete;

    Stmt &bind(int index, qint64 value)
    {
        sqlite3_bind_int64(m_stmt, index, value);
        return *this;
    }
    Stmt &bind(int index, const QString &value)
    {
        const QByteArray utf8 = value.toUtf8();
        sqlite3_bind_text(m_stmt, index, utf8.constData(), int(utf8.size()), SQLITE_TRANSIENT);
        return *this;
    }
    bool step()
    {
        const int rc = sqlite3_step(m_stmt);
        if (rc == SQLITE_ROW)
            return true;
        if (rc != SQLITE_DONE)
            throw std::runtime_error(sqlite3_errmsg(m_db));
        return false;
    }
    void reset()
    {
        sqlite3_reset(m_stmt);
        sqlite3_clear_bindings(m_stmt);
    }
    qint64 integer(int column) const { return sqlite3_column_int64(m_stmt, column); }

private:
    sqlite3 *m_db;
    sqlite3_stmt *m_stmt = nullptr;
};

const char *const kIssues[] = {"ENG-12", "ENG-7", "OPS-311", "WEB-1024", "DATA-5", ""};
const char *const kTopics[]
    = {"Review pull request", "Fix flaky build", "Write release notes", "Pair on parser", "Customer call"};

} // namespace

SimTracker::SimTracker(const QString &folder, const QString &account)
    : m_folder(folder)
    , m_account(account)
{
    if (folder.isEmpty())
        throw std::runtime_error("the simulated tracker needs an explicit folder");
}

SimTracker::~SimTracker()
{
    closeDatabase();
}

void SimTracker::setClock(std::function<QDateTime()> clock)
{
    m_clock = std::move(clock);
}

QDateTime SimTracker::now() const
{
    return m_clock ? m_clock() : QDateTime::currentDateTime();
}

qint64 SimTracker::nowMs() const
{
    return now().toMSecsSinceEpoch();
}

QString SimTracker::databasePath() const
{
    return m_folder + QStringLiteral("/Stintwatch.db");
}

QString SimTracker::logPath() const
{
    return m_folder + QStringLiteral("/application.log");
}

sqlite3 *SimTracker::db()
{
    if (!m_db) {
        // The tracker keeps its connection open while it runs, so the WAL and shared-memory files stay.
        const QByteArray path = QFile::encodeName(databasePath());
        if (sqlite3_open_v2(path.constData(), &m_db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr)
            != SQLITE_OK) {
            const std::string message = m_db ? sqlite3_errmsg(m_db) : "Cannot open database";
            closeDatabase();
            throw std::runtime_error(message);
        }
        sqlite3_busy_timeout(m_db, 5000);
        exec("PRAGMA journal_mode=WAL");
    }
    return m_db;
}

void SimTracker::closeDatabase()
{
    if (m_db)
        sqlite3_close_v2(m_db);
    m_db = nullptr;
}

void SimTracker::exec(const char *sql)
{
    char *message = nullptr;
    if (sqlite3_exec(db(), sql, nullptr, nullptr, &message) != SQLITE_OK) {
        const std::string text = message ? message : "SQL error";
        sqlite3_free(message);
        throw std::runtime_error(text);
    }
}

qint64 SimTracker::queryInt(const QByteArray &sql) const
{
    Stmt stmt(const_cast<SimTracker *>(this)->db(), sql);
    return stmt.step() ? stmt.integer(0) : 0;
}

void SimTracker::create()
{
    if (!QDir().mkpath(m_folder))
        throw std::runtime_error("cannot create the tracker folder");
    exec("CREATE TABLE IF NOT EXISTS projects(id INTEGER PRIMARY KEY, name TEXT)");
    exec("CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY, value TEXT)");
    exec("INSERT OR IGNORE INTO projects VALUES(42,'Engineering'),(77,'Operations')");
    addAccount(m_account);
    if (!QFile::exists(logPath())) {
        logLine(QStringLiteral("Info"), QStringLiteral("Stintwatch 4.2.1 starting"));
        noise(2);
    }
}

void SimTracker::addAccount(const QString &table)
{
    const QByteArray sql = "CREATE TABLE IF NOT EXISTS " + quoted(table)
        + "(id INTEGER PRIMARY KEY AUTOINCREMENT, apiId INTEGER, projectId INTEGER, startTime INTEGER, endTime "
          "INTEGER, description TEXT, seconds INTEGER, active INTEGER, lastChanged INTEGER)";
    exec(sql.constData());
}

qint64 SimTracker::openActivity() const
{
    return queryInt("SELECT id FROM " + quoted(m_account) + " WHERE endTime < startTime ORDER BY id DESC LIMIT 1");
}

qint64 SimTracker::openProject() const
{
    return queryInt(
        "SELECT projectId FROM " + quoted(m_account) + " WHERE endTime < startTime ORDER BY id DESC LIMIT 1");
}

qint64 SimTracker::start(qint64 project, const QString &description)
{
    if (openActivity())
        stop();
    const qint64 at = nowMs();
    Stmt insert(db(),
        "INSERT INTO " + quoted(m_account)
            + "(apiId,projectId,startTime,endTime,description,seconds,active,lastChanged) VALUES(?,?,?,0,?,0,1,?)");
    insert.bind(1, 500000 + QRandomGenerator::global()->bounded(100000))
        .bind(2, project)
        .bind(3, at)
        .bind(4, description)
        .bind(5, at);
    insert.step();
    const qint64 id = sqlite3_last_insert_rowid(db());
    logLine(QStringLiteral("Info"), QStringLiteral("Tracking started (project id: %1)").arg(project));
    if (!description.isEmpty())
        logLine(QStringLiteral("Info"),
            QStringLiteral("Adding activity description \"%1\" for project %2 to storage")
                .arg(description)
                .arg(project));
    return id;
}

void SimTracker::describe(const QString &description)
{
    const qint64 id = openActivity();
    const qint64 project = openProject();
    if (id) {
        Stmt update(db(), "UPDATE " + quoted(m_account) + " SET description=?, lastChanged=? WHERE id=?");
        update.bind(1, description).bind(2, nowMs()).bind(3, id).step();
    }
    logLine(QStringLiteral("Info"),
        QStringLiteral("Adding activity description \"%1\" for project %2 to storage").arg(description).arg(project));
}

void SimTracker::heartbeat()
{
    const qint64 id = openActivity();
    if (!id)
        return;
    const qint64 at = nowMs();
    Stmt update(db(), "UPDATE " + quoted(m_account) + " SET seconds=(?-startTime)/1000, lastChanged=? WHERE id=?");
    update.bind(1, at).bind(2, at).bind(3, id).step();
    logLine(QStringLiteral("Info"), QStringLiteral("Service timeout, updating activity end time (id: %1)").arg(id));
}

void SimTracker::stop()
{
    const qint64 id = openActivity();
    const qint64 project = openProject();
    if (!id)
        return;
    const qint64 at = nowMs();
    Stmt update(
        db(), "UPDATE " + quoted(m_account) + " SET endTime=?, seconds=(?-startTime)/1000, lastChanged=? WHERE id=?");
    update.bind(1, at).bind(2, at).bind(3, at).bind(4, id).step();
    logLine(QStringLiteral("Info"), QStringLiteral("Tracking stopped (project id: %1)").arg(project));
}

qint64 SimTracker::switchTo(qint64 project, const QString &description)
{
    stop();
    return start(project, description);
}

void SimTracker::setEndOf(qint64 id, qint64 endMs)
{
    Stmt update(db(), "UPDATE " + quoted(m_account) + " SET endTime=?, lastChanged=? WHERE id=?");
    update.bind(1, endMs).bind(2, nowMs()).bind(3, id).step();
}

QByteArray SimTracker::timestamp() const
{
    return QLocale::c().toString(now(), QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz")).toUtf8();
}

void SimTracker::logLine(const QString &level, const QString &message)
{
    appendLog('[' + timestamp() + "] [" + QByteArray::number(m_thread, 16) + "] [" + level.toUtf8() + "] "
        + message.toUtf8() + '\n');
}

void SimTracker::noise(int lines)
{
    static const char *const kLines[][2] = {
        {"Debug", "Sync queue drained (0 pending)"},
        {"Info", "Fetched 3 projects from server"},
        {"Warning", "Tracking started (project id: 9) was not confirmed by the server"},
        {"Info", "Idle detector armed (threshold 300 s)"},
        {"Error", "Service timeout, updating activity end time (id: 1) failed: offline"},
    };
    for (int i = 0; i < lines; ++i) {
        const auto &line = kLines[QRandomGenerator::global()->bounded(int(std::size(kLines)))];
        logLine(QString::fromLatin1(line[0]), QString::fromLatin1(line[1]));
    }
}

void SimTracker::appendLog(const QByteArray &bytes)
{
    QFile file(logPath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append) || file.write(bytes) != bytes.size())
        throw std::runtime_error("cannot write the tracker log");
}

void SimTracker::rotateLog()
{
    const QString old = logPath() + QStringLiteral(".1");
    QFile::remove(old);
    if (!QFile::rename(logPath(), old))
        throw std::runtime_error("cannot rotate the tracker log");
    logLine(QStringLiteral("Info"), QStringLiteral("Log rotated"));
}

void SimTracker::truncateLog()
{
    QFile file(logPath());
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        throw std::runtime_error("cannot truncate the tracker log");
}

void SimTracker::replaceDatabase()
{
    // A restore from backup or a reinstall: a different file takes the old one's name in one rename.
    closeDatabase();
    const QString fresh = m_folder + QStringLiteral("/Stintwatch.db.new");
    QFile::remove(fresh);
    {
        SimTracker other(m_folder, m_account);
        other.m_clock = m_clock;
        sqlite3 *handle = nullptr;
        const QByteArray path = QFile::encodeName(fresh);
        if (sqlite3_open_v2(path.constData(), &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr)
            != SQLITE_OK) {
            sqlite3_close_v2(handle);
            throw std::runtime_error("cannot create the replacement database");
        }
        other.m_db = handle;
        other.exec("PRAGMA journal_mode=DELETE");
        other.addAccount(m_account);
        other.exec("CREATE TABLE IF NOT EXISTS projects(id INTEGER PRIMARY KEY, name TEXT)");
        other.exec("CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY, value TEXT)");
    }
    for (const char *suffix : {"-wal", "-shm"})
        QFile::remove(databasePath() + QLatin1String(suffix));
    if (::rename(QFile::encodeName(fresh).constData(), QFile::encodeName(databasePath()).constData()) != 0)
        throw std::runtime_error("cannot replace the database");
}

void SimTracker::deleteDatabase()
{
    closeDatabase();
    for (const char *suffix : {"", "-wal", "-shm"})
        QFile::remove(databasePath() + QLatin1String(suffix));
}

void SimTracker::generateHistory(int count, int years)
{
    const qint64 end = nowMs() - 24 * 3600 * 1000LL;
    const qint64 span = qint64(years) * 365 * 24 * 3600 * 1000LL;
    const qint64 step = count > 0 ? span / count : 0;
    exec("BEGIN");
    Stmt insert(db(),
        "INSERT INTO " + quoted(m_account)
            + "(apiId,projectId,startTime,endTime,description,seconds,active,lastChanged) VALUES(?,?,?,?,?,?,1,?)");
    auto *random = QRandomGenerator::global();
    for (int i = 0; i < count; ++i) {
        const qint64 startMs = end - span + i * step;
        const qint64 length = qMin<qint64>(step, 60'000 + random->bounded(2 * 3600) * 1000LL);
        const QString issue = QString::fromLatin1(kIssues[i % std::size(kIssues)]);
        const QString topic = QString::fromLatin1(kTopics[i % std::size(kTopics)]);
        insert.reset();
        insert.bind(1, 100000 + i)
            .bind(2, (i % 3) ? 42 : 77)
            .bind(3, startMs)
            .bind(4, startMs + length)
            .bind(5, issue.isEmpty() ? topic : issue + u' ' + topic)
            .bind(6, length / 1000)
            .bind(7, startMs + length);
        insert.step();
    }
    exec("COMMIT");
}

void SimTracker::lock()
{
    // In WAL mode only exclusive locking mode keeps readers out; the next write takes the lock for good.
    exec("PRAGMA locking_mode=EXCLUSIVE");
    exec("BEGIN EXCLUSIVE");
    exec("INSERT OR REPLACE INTO settings VALUES('lock','held')");
    exec("COMMIT");
}

void SimTracker::unlock()
{
    exec("PRAGMA locking_mode=NORMAL");
    // The lock is released at the next access in normal mode.
    queryInt("SELECT count(*) FROM sqlite_master");
}
