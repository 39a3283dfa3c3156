#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

// The floor for every read of the tracker's database: the same snapshot and queries through SQLite's C API,
// every column of every row fetched (the description's bytes included), but nothing built from them.
inline int64_t bareTrackerRead(const std::string &path)
{
    const auto check = [](int code) {
        if (code != SQLITE_OK)
            throw std::runtime_error("bare read failed");
    };
    sqlite3 *db = nullptr;
    check(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr));
    sqlite3_busy_timeout(db, 300);
    check(sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr));
    std::vector<std::string> tables;
    sqlite3_stmt *list = nullptr;
    check(sqlite3_prepare_v2(
        db, "SELECT name FROM sqlite_master WHERE type='table' AND name LIKE '%_activity'", -1, &list, nullptr));
    while (sqlite3_step(list) == SQLITE_ROW)
        tables.emplace_back(reinterpret_cast<const char *>(sqlite3_column_text(list, 0)));
    sqlite3_finalize(list);
    int64_t sum = 0;
    for (const std::string &table : tables) {
        sqlite3_stmt *rows = nullptr;
        const std::string sql
            = "SELECT id,apiId,projectId,startTime,endTime,description,seconds,active,lastChanged FROM \"" + table
            + "\"";
        check(sqlite3_prepare_v2(db, sql.c_str(), -1, &rows, nullptr));
        while (sqlite3_step(rows) == SQLITE_ROW) {
            for (int column : {0, 1, 2, 3, 4, 6, 8})
                sum += sqlite3_column_int64(rows, column);
            sum += sqlite3_column_int(rows, 7);
            const auto *text = sqlite3_column_text(rows, 5);
            const int bytes = sqlite3_column_bytes(rows, 5);
            if (text && bytes > 0)
                sum += bytes + text[bytes - 1];
        }
        sqlite3_finalize(rows);
    }
    sqlite3_close_v2(db);
    return sum;
}
