#pragma once

#include <QDateTime>
#include <QString>

#include <cstdint>
#include <string>

namespace tracker
{

// What a line of the tracker's log says; the numbers are the values of `Event::kind`.
enum class EventKind : int {
    None = 0,
    TrackingStarted = 1,
    TrackingStopped = 2,
    DescriptionAdded = 3,
    // The tracker's service timed out and moved the end of an activity (`Event::activity`).
    ServiceHeartbeat = 4,
};

// One line of the tracker's log, understood (`kind` holds an `EventKind`). Texts are the line's bytes as
// written.
struct Event {
    std::string timestamp, description;
    int64_t project = 0, activity = 0;
    int kind = 0;
};

inline EventKind eventKind(const Event &event)
{
    return EventKind(event.kind);
}

// Throws std::out_of_range when a number in a recognised line does not fit in 64 bits.
Event parseEvent(const std::string &line);

// The first issue key in `text` (case-insensitive), upper-cased; empty when there is none.
std::string issue(const std::string &text);

} // namespace tracker

// The local time of a log timestamp such as "2026-03-29 14:05:09.123"; invalid when it does not fit.
QDateTime HLEventDate(const QString &text);
