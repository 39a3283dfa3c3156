#include "source/trackerdb.h"

#include <sqlite3.h>

#include <new>
#include <stdexcept>
#include <string_view>

namespace tracker
{

namespace
{

constexpr int kBusyTimeoutMs = 300;
constexpr std::string_view kActivitySuffix = "_activity";
// Past this many rows the estimate is not trusted: the list then grows as it is filled.
constexpr int64_t kMaxReserved = int64_t(1) << 20;

// Room for every row before the first is read. Growing the list while it is filled costs more than the
// conversion itself: each doubling moves every record and touches fresh memory. The span of the row ids is
// found in two index seeks and is the exact count for a table whose ids have no gaps, an upper bound for any
// other; it is only an estimate, so a query that fails here (a table without row ids) just leaves it out.
int64_t rowEstimate(DB &db, const std::vector<std::string> &tables)
{
    int64_t rows = 0;
    for (const std::string &table : tables) {
        const std::string name = quote(table);
        const std::string sql = "SELECT (SELECT max(rowid) FROM " + name + ")-(SELECT min(rowid) FROM " + name + ")";
        sqlite3_stmt *span = nullptr;
        if (sqlite3_prepare_v2(db.handle(), sql.c_str(), static_cast<int>(sql.size()) + 1, &span, nullptr) == SQLITE_OK
            && sqlite3_step(span) == SQLITE_ROW && sqlite3_column_type(span, 0) == SQLITE_INTEGER) {
            const int64_t gap = sqlite3_column_int64(span, 0);
            if (gap >= 0 && gap < kMaxReserved)
                rows += gap + 1;
        }
        sqlite3_finalize(span);
    }
    return rows;
}

void reserve(std::vector<Activity> &activities, int64_t rows)
{
    if (rows > 0 && rows <= kMaxReserved) {
        try {
            activities.reserve(static_cast<size_t>(rows));
        } catch (const std::bad_alloc &) {
            // Only an estimate: the list grows as it is filled instead.
        }
    }
}

std::string rowQuery(const std::string &table, const RowFilter *filter)
{
    std::string sql
        = "SELECT id,apiId,projectId,startTime,endTime,description,seconds,active,lastChanged FROM " + quote(table);
    if (filter) {
        // A row without a change time is always read: nothing says it is old. Without the sweep, what is left
        // are lookups in the row id's index; ?1 is then bound but unused.
        sql += filter->sweep ? " WHERE lastChanged>=?1 OR lastChanged IS NULL OR id>?2" : " WHERE id>?2";
        if (!filter->ids.empty()) {
            sql += " OR id IN (";
            for (size_t i = 0; i < filter->ids.size(); ++i)
                sql += (i ? ",?" : "?") + std::to_string(i + 3);
            sql += ')';
        }
    }
    return sql;
}

} // namespace

DB::DB(const std::string &path, int flags)
{
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
        // Take the message before closing: it lives in the half-open handle.
        std::string message = db ? sqlite3_errmsg(db) : "Cannot open database";
        sqlite3_close(db);
        throw std::runtime_error(message);
    }
    m_db = db;
    sqlite3_busy_timeout(m_db, kBusyTimeoutMs);
}

DB::~DB()
{
    // Closing also ends a transaction that was never committed (a rollback).
    sqlite3_close_v2(m_db);
}

void DB::exec(const std::string &sql)
{
    char *error = nullptr;
    if (sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        std::string message = error ? error : "SQL error";
        sqlite3_free(error);
        throw std::runtime_error(message);
    }
}

void DB::fail() const
{
    throw std::runtime_error(sqlite3_errmsg(m_db));
}

Statement::Statement(DB &db, const std::string &sql)
    : m_db(db)
{
    if (sqlite3_prepare_v2(db.handle(), sql.c_str(), static_cast<int>(sql.size()) + 1, &m_statement, nullptr)
        != SQLITE_OK)
        db.fail();
}

Statement::~Statement()
{
    sqlite3_finalize(m_statement);
}

bool Statement::step()
{
    switch (sqlite3_step(m_statement)) {
    case SQLITE_ROW:
        return true;
    case SQLITE_DONE:
        return false;
    default:
        m_db.fail();
    }
}

std::string column(Statement &statement, int index)
{
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement.handle(), index));
    if (!text)
        return {};
    return std::string(text, static_cast<size_t>(sqlite3_column_bytes(statement.handle(), index)));
}

std::string quote(const std::string &name)
{
    std::string quoted;
    quoted.reserve(name.size() + 2);
    quoted += '"';
    for (char c : name) {
        if (c == '"')
            quoted += '"';
        quoted += c;
    }
    quoted += '"';
    return quoted;
}

Activity ActivityView::activity() const
{
    return Activity {std::string(source), std::string(description), id, api_id, project, start_ms, end_ms, seconds,
        changed_ms, active};
}

ActivityReader::ActivityReader(const std::string &path)
    : m_db(path, SQLITE_OPEN_READONLY)
{
    // One snapshot for every table while the tracker keeps writing. Never committed: closing the connection
    // ends it, and a read-only connection has nothing to commit anyway.
    m_db.exec("BEGIN");
    Statement list(m_db, "SELECT name FROM sqlite_master WHERE type='table' AND name LIKE '%_activity'");
    while (list.step()) {
        std::string name = column(list, 0);
        // LIKE is case-insensitive and treats "_" as a wildcard; only the exact suffix names an account.
        if (name.size() >= kActivitySuffix.size()
            && std::string_view(name).substr(name.size() - kActivitySuffix.size()) == kActivitySuffix)
            m_tables.push_back(std::move(name));
    }
}

int64_t ActivityReader::estimatedRows()
{
    return rowEstimate(m_db, m_tables);
}

ActivityRows::ActivityRows(ActivityReader &reader, size_t table, const RowFilter *filter)
    : m_rows(reader.db(), rowQuery(reader.tables().at(table), filter))
{
    m_view.source = reader.tables()[table];
    if (filter) {
        sqlite3_stmt *s = m_rows.handle();
        sqlite3_bind_int64(s, 1, filter->changedSince);
        sqlite3_bind_int64(s, 2, filter->idAbove);
        for (size_t i = 0; i < filter->ids.size(); ++i)
            sqlite3_bind_int64(s, static_cast<int>(i) + 3, filter->ids[i]);
    }
}

bool ActivityRows::next()
{
    if (!m_rows.step())
        return false;
    sqlite3_stmt *s = m_rows.handle();
    m_view.id = sqlite3_column_int64(s, 0);
    m_view.api_id = sqlite3_column_int64(s, 1);
    m_view.project = sqlite3_column_int64(s, 2);
    m_view.start_ms = sqlite3_column_int64(s, 3);
    m_view.end_ms = sqlite3_column_int64(s, 4);
    const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(s, 5));
    m_view.description
        = text ? std::string_view(text, static_cast<size_t>(sqlite3_column_bytes(s, 5))) : std::string_view();
    m_view.seconds = sqlite3_column_int64(s, 6);
    m_view.active = sqlite3_column_int(s, 7);
    m_view.changed_ms = sqlite3_column_int64(s, 8);
    return true;
}

std::vector<Activity> readActivities(const std::string &path)
{
    ActivityReader reader(path);
    std::vector<Activity> activities;
    reserve(activities, reader.estimatedRows());
    for (size_t table = 0; table < reader.tables().size(); ++table) {
        for (ActivityRows rows(reader, table); rows.next();) {
            const ActivityView &v = rows.view();
            Activity &a = activities.emplace_back();
            a.source = reader.tables()[table];
            a.id = v.id;
            a.api_id = v.api_id;
            a.project = v.project;
            a.start_ms = v.start_ms;
            a.end_ms = v.end_ms;
            a.description.assign(v.description);
            a.seconds = v.seconds;
            a.active = v.active;
            a.changed_ms = v.changed_ms;
        }
    }
    // A sparse table made the estimate far too large: give the unused room back.
    if (activities.capacity() > 2 * activities.size() + 1024)
        activities.shrink_to_fit();
    return activities;
}

} // namespace tracker
