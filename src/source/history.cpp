#include "source/history.h"

#include <sqlite3.h>

#include <cstring>
#include <string_view>
#include <unordered_map>

namespace tracker
{

namespace
{

constexpr const char *kCreateTable
    = "CREATE TABLE IF NOT EXISTS activities(source TEXT,id INTEGER,api_id INTEGER,project INTEGER,start_ms "
      "INTEGER,end_ms INTEGER,description TEXT,source_seconds INTEGER,source_active INTEGER,changed_ms "
      "INTEGER,PRIMARY KEY(source,id))";

// The table stays exactly as above; the index only serves the newest-first read of history().
constexpr const char *kCreateIndex = "CREATE INDEX IF NOT EXISTS activities_start_ms ON activities(start_ms)";

// The upsert skips rows whose stored values are all identical, so an unchanged row is never rewritten.
constexpr const char *kUpsert
    = "INSERT INTO activities VALUES(?,?,?,?,?,?,?,?,?,?) ON CONFLICT(source,id) DO UPDATE SET "
      "api_id=excluded.api_id,project=excluded.project,start_ms=excluded.start_ms,end_ms=excluded.end_ms,"
      "description=excluded.description,source_seconds=excluded.source_seconds,"
      "source_active=excluded.source_active,changed_ms=excluded.changed_ms "
      "WHERE api_id IS NOT excluded.api_id OR project IS NOT excluded.project OR start_ms IS NOT "
      "excluded.start_ms OR end_ms IS NOT excluded.end_ms OR description IS NOT excluded.description OR "
      "source_seconds IS NOT excluded.source_seconds OR source_active IS NOT excluded.source_active OR "
      "changed_ms IS NOT excluded.changed_ms";

struct Key {
    uint32_t source;
    int64_t id;
    bool operator==(const Key &) const = default;
};

struct KeyHash {
    size_t operator()(const Key &key) const noexcept
    {
        return std::hash<int64_t>()(key.id) * 0x9E3779B97F4A7C15ULL ^ key.source;
    }
};

bool sameInteger(sqlite3_stmt *s, int index, int64_t value)
{
    return sqlite3_column_type(s, index) == SQLITE_INTEGER && sqlite3_column_int64(s, index) == value;
}

bool sameText(sqlite3_stmt *s, int index, const std::string &value)
{
    if (sqlite3_column_type(s, index) != SQLITE_TEXT)
        return false;
    const void *stored = sqlite3_column_text(s, index);
    const auto size = static_cast<size_t>(sqlite3_column_bytes(s, index));
    return size == value.size() && (size == 0 || std::memcmp(stored, value.data(), size) == 0);
}

// Which activities need the upsert: the last occurrence of each key (an earlier one would be overwritten
// anyway) unless the stored row already holds exactly its values. A repeat save after a scan in which
// little changed then costs one sequential read of the store instead of a keyed write per activity.
std::vector<char> activitiesToWrite(DB &db, const std::vector<Activity> &activities)
{
    std::unordered_map<std::string_view, uint32_t> sources;
    std::unordered_map<Key, size_t, KeyHash> last;
    last.reserve(activities.size());
    const std::string *previousSource = nullptr;
    uint32_t sourceIndex = 0;
    for (size_t i = 0; i < activities.size(); ++i) {
        const std::string &source = activities[i].source;
        if (!previousSource || *previousSource != source) {
            sourceIndex = sources.try_emplace(source, static_cast<uint32_t>(sources.size())).first->second;
            previousSource = &source;
        }
        last[Key {sourceIndex, activities[i].id}] = i;
    }

    std::vector<char> write(activities.size(), 0);
    for (const auto &entry : last)
        write[entry.second] = 1;

    Statement stored(db,
        "SELECT source,id,api_id,project,start_ms,end_ms,description,source_seconds,source_active,changed_ms "
        "FROM activities");
    sqlite3_stmt *s = stored.handle();
    std::string lastSource;
    bool lastKnown = false;
    while (stored.step()) {
        if (sqlite3_column_type(s, 0) != SQLITE_TEXT || sqlite3_column_type(s, 1) != SQLITE_INTEGER)
            continue;
        const std::string_view source(
            reinterpret_cast<const char *>(sqlite3_column_text(s, 0)), static_cast<size_t>(sqlite3_column_bytes(s, 0)));
        if (source != lastSource) {
            lastSource.assign(source);
            const auto found = sources.find(lastSource);
            lastKnown = found != sources.end();
            if (lastKnown)
                sourceIndex = found->second;
        }
        if (!lastKnown)
            continue;
        const auto found = last.find(Key {sourceIndex, sqlite3_column_int64(s, 1)});
        if (found == last.end())
            continue;
        const Activity &a = activities[found->second];
        if (sameInteger(s, 2, a.api_id) && sameInteger(s, 3, a.project) && sameInteger(s, 4, a.start_ms)
            && sameInteger(s, 5, a.end_ms) && sameText(s, 6, a.description) && sameInteger(s, 7, a.seconds)
            && sameInteger(s, 8, a.active) && sameInteger(s, 9, a.changed_ms))
            write[found->second] = 0;
    }
    return write;
}

Activity activityFromRow(Statement &row)
{
    sqlite3_stmt *s = row.handle();
    Activity a;
    a.source = column(row, 0);
    a.id = sqlite3_column_int64(s, 1);
    a.api_id = sqlite3_column_int64(s, 2);
    a.project = sqlite3_column_int64(s, 3);
    a.start_ms = sqlite3_column_int64(s, 4);
    a.end_ms = sqlite3_column_int64(s, 5);
    a.description = column(row, 6);
    a.seconds = sqlite3_column_int64(s, 7);
    a.active = sqlite3_column_int(s, 8);
    a.changed_ms = sqlite3_column_int64(s, 9);
    return a;
}

} // namespace

void saveActivities(const std::string &path, const std::vector<Activity> &activities)
{
    DB db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    db.exec(kCreateTable);
    db.exec(kCreateIndex);
    // Take the write lock at once, so a second process waits for the busy timeout instead of failing halfway.
    // Any failure below leaves the transaction open; closing the connection rolls it back.
    db.exec("BEGIN IMMEDIATE");

    const std::vector<char> write = activitiesToWrite(db, activities);
    Statement upsert(db, kUpsert);
    sqlite3_stmt *s = upsert.handle();
    for (size_t i = 0; i < activities.size(); ++i) {
        if (!write[i])
            continue;
        const Activity &a = activities[i];
        sqlite3_reset(s);
        sqlite3_clear_bindings(s);
        sqlite3_bind_text(s, 1, a.source.data(), static_cast<int>(a.source.size()), SQLITE_TRANSIENT);
        sqlite3_bind_int64(s, 2, a.id);
        sqlite3_bind_int64(s, 3, a.api_id);
        sqlite3_bind_int64(s, 4, a.project);
        sqlite3_bind_int64(s, 5, a.start_ms);
        sqlite3_bind_int64(s, 6, a.end_ms);
        sqlite3_bind_text(s, 7, a.description.data(), static_cast<int>(a.description.size()), SQLITE_TRANSIENT);
        sqlite3_bind_int64(s, 8, a.seconds);
        sqlite3_bind_int(s, 9, a.active);
        sqlite3_bind_int64(s, 10, a.changed_ms);
        if (upsert.step())
            db.fail(); // a row where none was expected
    }
    db.exec("COMMIT");
}

std::vector<Activity> history(const std::string &path)
{
    DB db(path, SQLITE_OPEN_READONLY);
    Statement rows(db,
        "SELECT source,id,api_id,project,start_ms,end_ms,description,source_seconds,source_active,changed_ms "
        "FROM activities ORDER BY start_ms DESC LIMIT 1000");
    std::vector<Activity> activities;
    while (rows.step())
        activities.push_back(activityFromRow(rows));
    return activities;
}

std::vector<std::array<int64_t, 3>> summaryHistory(const std::string &path, int64_t since)
{
    DB db(path, SQLITE_OPEN_READONLY);
    Statement rows(db, "SELECT project,start_ms,end_ms FROM activities WHERE end_ms >= ? OR start_ms >= ?");
    sqlite3_bind_int64(rows.handle(), 1, since);
    sqlite3_bind_int64(rows.handle(), 2, since);
    std::vector<std::array<int64_t, 3>> triples;
    while (rows.step())
        triples.push_back({sqlite3_column_int64(rows.handle(), 0), sqlite3_column_int64(rows.handle(), 1),
            sqlite3_column_int64(rows.handle(), 2)});
    return triples;
}

} // namespace tracker
