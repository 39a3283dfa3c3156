#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace tracker
{

// One tracked interval of the tracker, copied as stored. `end_ms` below `start_ms` marks an open interval.
struct Activity {
    std::string source, description;
    int64_t id = 0, api_id = 0, project = 0, start_ms = 0, end_ms = 0, seconds = 0, changed_ms = 0;
    int32_t active = 0;
};

// One SQLite connection, closed on destruction. Failures throw std::runtime_error with SQLite's text.
class DB
{
public:
    DB(const std::string &path, int flags);
    ~DB();
    DB(const DB &) = delete;
    DB &operator=(const DB &) = delete;

    void exec(const std::string &sql);
    sqlite3 *handle() const { return m_db; }
    [[noreturn]] void fail() const;

private:
    sqlite3 *m_db = nullptr;
};

// One prepared statement on a DB it does not own, finalized on destruction.
class Statement
{
public:
    Statement(DB &db, const std::string &sql);
    ~Statement();
    Statement(const Statement &) = delete;
    Statement &operator=(const Statement &) = delete;

    // True while a row is available, false when done; anything else throws the connection's error message.
    bool step();
    sqlite3_stmt *handle() const { return m_statement; }
    DB &db() const { return m_db; }

private:
    DB &m_db;
    sqlite3_stmt *m_statement = nullptr;
};

// The column's bytes as they are stored (no UTF-8 check); NULL gives an empty string.
std::string column(Statement &statement, int index);

// The name as an SQL identifier: in double quotes, every double quote inside doubled.
std::string quote(const std::string &name);

// Every activity of every account table ("*_activity") of the tracker database at `path`, read from one
// snapshot without ever writing to the file.
std::vector<Activity> readActivities(const std::string &path);

// One activity as SQLite hands it over while a read steps: the texts point into SQLite's own buffers and stay
// valid only until the next step. Looking at a row this way costs no allocation; `activity()` makes the copy.
struct ActivityView {
    std::string_view source, description;
    int64_t id = 0, api_id = 0, project = 0, start_ms = 0, end_ms = 0, seconds = 0, changed_ms = 0;
    int32_t active = 0;

    Activity activity() const;
};

// The rows of one account table that a partial read visits: those changed at or after `changedSince`, those
// with an id above `idAbove`, and those whose id is one of `ids`.
struct RowFilter {
    int64_t changedSince = 0;
    int64_t idAbove = 0;
    std::vector<int64_t> ids;
    // False: only the id lookups, no pass over the table for the rows stamped since `changedSince`.
    bool sweep = true;
};

// The tracker database at `path` opened read-only inside one snapshot (an uncommitted BEGIN, ended when the
// reader is destroyed), with its account tables listed as readActivities() lists them.
class ActivityReader
{
public:
    explicit ActivityReader(const std::string &path);

    const std::vector<std::string> &tables() const { return m_tables; }
    // At least the number of rows of every table when their row ids have no gaps; only a sizing hint.
    int64_t estimatedRows();
    DB &db() { return m_db; }

private:
    DB m_db;
    std::vector<std::string> m_tables;
};

// Steps through the rows of one table of an ActivityReader, all of them or those a RowFilter names, in
// SQLite's order: `for (ActivityRows rows(reader, t); rows.next();) use(rows.view());`.
class ActivityRows
{
public:
    ActivityRows(ActivityReader &reader, size_t table, const RowFilter *filter = nullptr);

    bool next();
    const ActivityView &view() const { return m_view; }

private:
    Statement m_rows;
    ActivityView m_view;
};

} // namespace tracker
