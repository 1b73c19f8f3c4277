#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

#include "base/mutex.h"

namespace ox {

enum class LogLevel : int32_t { TRACE = 0, DEBUG = 1, INFO = 2, WARN = 3, ERROR = 4 };

struct LogSinks {
    bool console = true;             ///< write each line to standard error
    std::FILE* file = nullptr;       ///< the open log file, or null; closed by the destructor
    std::string path;                ///< the log file's path
    int64_t bytes = 0;               ///< bytes in the current file, for rotation
    bool stderr_redirected = false;  ///< descriptor 2 is a copy of `file`; redone after a rotation

    LogSinks() = default;
    LogSinks(const LogSinks&) = delete;
    LogSinks& operator=(const LogSinks&) = delete;
    ~LogSinks();
};

/// Lowest level that is written (a `LogLevel` as a number); INFO at start.
std::atomic<int32_t>& log_level();
Mutex& log_mutex();
LogSinks& log_sinks() OX_REQUIRES(log_mutex());

/// Writes one line to the sinks: local time with microseconds, `level_name`, message. The message
/// is cut at 2047 bytes. Thread-safe; allocates nothing, never throws, preserves errno. A sink that
/// cannot be written loses only this line.
void log_msg(LogLevel level, const char* level_name, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace ox

#define OX_TRACE(...) ::ox::log_msg(::ox::LogLevel::TRACE, "TRACE", __VA_ARGS__)
#define OX_DEBUG(...) ::ox::log_msg(::ox::LogLevel::DEBUG, "DEBUG", __VA_ARGS__)
#define OX_INFO(...) ::ox::log_msg(::ox::LogLevel::INFO, "INFO", __VA_ARGS__)
#define OX_WARN(...) ::ox::log_msg(::ox::LogLevel::WARN, "WARN", __VA_ARGS__)
#define OX_ERROR(...) ::ox::log_msg(::ox::LogLevel::ERROR, "ERROR", __VA_ARGS__)
