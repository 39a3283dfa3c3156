#include "logger.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace signin
{

namespace
{

std::atomic<LogLevel> g_level {LogLevel::Info};
std::mutex g_mutex;

void appendEscaped(std::string &out, const std::string &text)
{
    for (const unsigned char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        default:
            if (c < 0x20) {
                char buffer[8];
                std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
                out += buffer;
            } else {
                out += char(c);
            }
        }
    }
}

const char *levelName(LogLevel level)
{
    switch (level) {
    case LogLevel::Debug:
        return "debug";
    case LogLevel::Info:
        return "info";
    case LogLevel::Warning:
        return "warning";
    case LogLevel::Error:
        return "error";
    }
    return "info";
}

void write(LogLevel level, const char *event, Logger::Fields fields)
{
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm utc {};
    gmtime_r(&seconds, &utc);
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
        utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, int(millis));
    std::string line = "{\"time\":\"";
    line += stamp;
    line += "\",\"level\":\"";
    line += levelName(level);
    line += "\",\"event\":\"";
    appendEscaped(line, event);
    line += '"';
    for (const auto &[name, value] : fields) {
        line += ",\"";
        appendEscaped(line, name);
        line += "\":\"";
        appendEscaped(line, value);
        line += '"';
    }
    line += "}\n";
    std::lock_guard lock(g_mutex);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fflush(stderr);
}

} // namespace

void Logger::setLevel(LogLevel level)
{
    g_level = level;
}

LogLevel Logger::parseLevel(const std::string &text)
{
    if (text == "debug")
        return LogLevel::Debug;
    if (text == "warning")
        return LogLevel::Warning;
    if (text == "error")
        return LogLevel::Error;
    return LogLevel::Info;
}

void Logger::lifecycle(const char *event, Fields fields)
{
    write(LogLevel::Info, event, fields);
}

void Logger::log(LogLevel level, const char *event, Fields fields)
{
    if (level >= g_level.load())
        write(level, event, fields);
}

} // namespace signin
