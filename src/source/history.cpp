#include "source/history.h"

#include <sqlite3.h>

#include <bit>
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
constexpr size_t kKeyedSaveLimit = 1024;

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
};

// The keys of one save, each to the index of its last occurrence: open addressing in a flat power-of-two
// table, since a node-based map spent most of a repeat save on cache misses.
class KeyIndex
{
public:
    explicit KeyIndex(size_t count)
        : m_slots(std::bit_ceil(count * 2 + 2))
        , m_mask(m_slots.size() - 1)
    {
    }

    void set(Key key, size_t index)
    {
        Slot &slot = m_slots[probe(key)];
        slot.id = key.id;
        slot.source = key.source;
        slot.index = index;
    }

    // The index of the key's last occurrence, or kNone.
    size_t find(Key key) const { return m_slots[probe(key)].index; }

    template<typename Function> void forEach(Function function) const
    {
        for (const Slot &slot : m_slots) {
            if (slot.index != kNone)
                function(slot.index);
        }
    }

    static constexpr size_t kNone = SIZE_MAX;

private:
    struct Slot {
        int64_t id = 0;
        uint32_t source = 0;
        size_t index = kNone;
    };

    size_t probe(Key key) const
    {
        uint64_t h = static_cast<uint64_t>(key.id) + 0x9E3779B97F4A7C15ULL * (key.source + 1);
        h = (h ^ (h >> 30)) * 0xBF58476D1CE4E5B9ULL;
        h = (h ^ (h >> 27)) * 0x94D049BB133111EBULL;
        h ^= h >> 31;
        for (size_t at = h & m_mask;; at = (at + 1) & m_mask) {
            const Slot &slot = m_slots[at];
            if (slot.index == kNone || (slot.id == key.id && slot.source == key.source))
                return at;
        }
    }

    std::vector<Slot> m_slots;
    size_t m_mask;
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
    KeyIndex last(activities.size());
    std::vector<uint32_t> sourceOf(activities.size());
    const std::string *previousSource = nullptr;
    uint32_t sourceIndex = 0;
    for (size_t i = 0; i < activities.size(); ++i) {
        const std::string &source = activities[i].source;
        if (!previousSource || *previousSource != source) {
            sourceIndex = sources.try_emplace(source, static_cast<uint32_t>(sources.size())).first->second;
            previousSource = &source;
        }
        sourceOf[i] = sourceIndex;
        last.set(Key {sourceIndex, activities[i].id}, i);
    }

    std::vector<char> write(activities.size(), 0);
    last.forEach([&](size_t index) { write[index] = 1; });

    Statement stored(db,
        "SELECT source,id,api_id,project,start_ms,end_ms,description,source_seconds,source_active,changed_ms "
        "FROM activities");
    sqlite3_stmt *s = stored.handle();
    std::string lastSource;
    bool haveSource = false, lastKnown = false;
    size_t next = 0;
    while (stored.step()) {
        if (sqlite3_column_type(s, 0) != SQLITE_TEXT || sqlite3_column_type(s, 1) != SQLITE_INTEGER)
            continue;
        const std::string_view source(
            reinterpret_cast<const char *>(sqlite3_column_text(s, 0)), static_cast<size_t>(sqlite3_column_bytes(s, 0)));
        if (!haveSource || source != lastSource) {
            haveSource = true;
            lastSource.assign(source);
            const auto found = sources.find(lastSource);
            lastKnown = found != sources.end();
            if (lastKnown)
                sourceIndex = found->second;
        }
        if (!lastKnown)
            continue;
        const Key key {sourceIndex, sqlite3_column_int64(s, 1)};
        // The store usually lists rows in the order the tracker gave them: try the next activity first.
        size_t found = next;
        if (found >= activities.size() || !write[found] || sourceOf[found] != key.source
            || activities[found].id != key.id)
            found = last.find(key);
        if (found == KeyIndex::kNone)
            continue;
        next = found + 1;
        const Activity &a = activities[found];
        if (sameInteger(s, 2, a.api_id) && sameInteger(s, 3, a.project) && sameInteger(s, 4, a.start_ms)
            && sameInteger(s, 5, a.end_ms) && sameText(s, 6, a.description) && sameInteger(s, 7, a.seconds)
            && sameInteger(s, 8, a.active) && sameInteger(s, 9, a.changed_ms))
            write[found] = 0;
    }
    return write;
}

void upsert(Statement &statement, const Activity &a)
{
    sqlite3_stmt *s = statement.handle();
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
    if (statement.step())
        statement.db().fail(); // a row where none was expected
}

DB &createdStore(DB &db)
{
    db.exec(kCreateTable);
    db.exec(kCreateIndex);
    return db;
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
    createdStore(db);
    // Take the write lock at once, so a second process waits for the busy timeout instead of failing halfway.
    // Any failure below leaves the transaction open; closing the connection rolls it back.
    db.exec("BEGIN IMMEDIATE");

    // A short list (a scan in which few activities changed) costs fewer keyed lookups than one pass over the
    // whole store; the upsert's own WHERE still keeps identical rows from being rewritten.
    const std::vector<char> write = activities.size() <= kKeyedSaveLimit ? std::vector<char>(activities.size(), 1)
                                                                         : activitiesToWrite(db, activities);
    Statement statement(db, kUpsert);
    for (size_t i = 0; i < activities.size(); ++i) {
        if (write[i])
            upsert(statement, activities[i]);
    }
    db.exec("COMMIT");
}

HistoryWriter::HistoryWriter(const std::string &path)
    : m_db(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)
    , m_upsert(createdStore(m_db), kUpsert)
{
}

void HistoryWriter::save(const std::vector<Activity> &activities)
{
    m_db.exec("BEGIN IMMEDIATE");
    try {
        for (const Activity &activity : activities)
            upsert(m_upsert, activity);
        m_db.exec("COMMIT");
    } catch (...) {
        // The connection outlives this batch: what it wrote must not ride along with the next one.
        sqlite3_reset(m_upsert.handle());
        sqlite3_exec(m_db.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

void visitHistory(const std::string &path, const std::function<void(const ActivityView &)> &visit)
{
    DB db(path, SQLITE_OPEN_READONLY);
    Statement rows(db,
        "SELECT source,id,api_id,project,start_ms,end_ms,description,source_seconds,source_active,changed_ms "
        "FROM activities");
    sqlite3_stmt *s = rows.handle();
    const auto text = [s](int index) {
        const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(s, index));
        return bytes ? std::string_view(bytes, static_cast<size_t>(sqlite3_column_bytes(s, index)))
                     : std::string_view();
    };
    ActivityView view;
    while (rows.step()) {
        view.source = text(0);
        view.id = sqlite3_column_int64(s, 1);
        view.api_id = sqlite3_column_int64(s, 2);
        view.project = sqlite3_column_int64(s, 3);
        view.start_ms = sqlite3_column_int64(s, 4);
        view.end_ms = sqlite3_column_int64(s, 5);
        view.description = text(6);
        view.seconds = sqlite3_column_int64(s, 7);
        view.active = sqlite3_column_int(s, 8);
        view.changed_ms = sqlite3_column_int64(s, 9);
        visit(view);
    }
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

int damage(const std::string &path)
{
    sqlite3 *db = nullptr;
    const auto verdict = [&db](int code) {
        const int primary = code & 0xff;
        return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB ? primary : 0;
    };
    int result = 0;
    int code = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
    if (code == SQLITE_OK) {
        sqlite3_busy_timeout(db, 300);
        sqlite3_stmt *check = nullptr;
        code = sqlite3_prepare_v2(db, "PRAGMA quick_check(1)", -1, &check, nullptr);
        if (code == SQLITE_OK) {
            code = sqlite3_step(check);
            if (code == SQLITE_ROW) {
                const auto *answer = reinterpret_cast<const char *>(sqlite3_column_text(check, 0));
                result = answer && std::strcmp(answer, "ok") == 0 ? 0 : SQLITE_CORRUPT;
            } else {
                result = verdict(sqlite3_extended_errcode(db));
            }
        } else {
            result = verdict(sqlite3_extended_errcode(db));
        }
        sqlite3_finalize(check);
    }
    sqlite3_close(db);
    return result;
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
