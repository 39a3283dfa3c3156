#pragma once

#include <QDateTime>
#include <QString>

#include <cstdint>
#include <string>

namespace tracker
{

// One line of the tracker's log, understood. `kind`: 0 none, 1 tracking started, 2 tracking stopped,
// 3 description added, 4 service heartbeat. Texts are the line's bytes as written.
struct Event {
    std::string timestamp, description;
    int64_t project = 0, activity = 0;
    int kind = 0;
};

// Throws std::out_of_range when a number in a recognised line does not fit in 64 bits.
Event parseEvent(const std::string &line);

// The first issue key in `text` (case-insensitive), upper-cased; empty when there is none.
std::string issue(const std::string &text);

} // namespace tracker

// The local time of a log timestamp such as "2026-03-29 14:05:09.123"; invalid when it does not fit.
QDateTime HLEventDate(const QString &text);
