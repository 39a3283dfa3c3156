#pragma once

#include <initializer_list>
#include <string>
#include <utility>

namespace signin
{

enum class LogLevel { Debug, Info, Warning, Error };

// Structured logs: one JSON object per line on stderr (journald keeps them as they are). Callers pass only
// whitelisted fields: event names, client addresses, statuses and the one-way tags of crypto::logTag, never a
// code, token, verifier, nonce or secret.
class Logger
{
public:
    using Fields = std::initializer_list<std::pair<const char *, std::string>>;

    static void setLevel(LogLevel level);
    static LogLevel parseLevel(const std::string &text);
    static void log(LogLevel level, const char *event, Fields fields = {});
    static void info(const char *event, Fields fields = {}) { log(LogLevel::Info, event, fields); }
    static void warning(const char *event, Fields fields = {}) { log(LogLevel::Warning, event, fields); }
    static void error(const char *event, Fields fields = {}) { log(LogLevel::Error, event, fields); }
    // Start and stop: written at every level, so supervisors and tests always see them.
    static void lifecycle(const char *event, Fields fields = {});
};

} // namespace signin
