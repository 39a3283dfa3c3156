#pragma once

#include "source/trackerdb.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tracker
{

// Upserts every activity into the `activities` table of the history database at `path`, creating the file
// and table when missing. All or nothing: on failure nothing of this call is stored.
void saveActivities(const std::string &path, const std::vector<Activity> &activities);

// The history database at `path` (created with its table when missing) held open for saves in batches, each
// batch all or nothing in a transaction of its own: a caller streaming a large read into the store never holds
// it whole. Every given activity is upserted by key; stored rows with identical values are not rewritten.
class HistoryWriter
{
public:
    explicit HistoryWriter(const std::string &path);

    void save(const std::vector<Activity> &activities);

private:
    DB m_db;
    Statement m_upsert;
};

// Every stored activity, in the store's order, as a view valid until the visitor returns.
void visitHistory(const std::string &path, const std::function<void(const ActivityView &)> &visit);

// The (at most) 1000 stored activities with the latest start, newest first.
std::vector<Activity> history(const std::string &path);

// (project, start_ms, end_ms) of every stored activity that starts or ends at or after `since`.
std::vector<std::array<int64_t, 3>> summaryHistory(const std::string &path, int64_t since);

// SQLite's verdict on the history database at `path`: SQLITE_CORRUPT or SQLITE_NOTADB when the file is
// damaged, 0 when it passes a quick check or cannot be judged (missing, locked, not openable). Never writes.
int damage(const std::string &path);

} // namespace tracker
