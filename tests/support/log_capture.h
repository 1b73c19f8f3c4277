#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "log/log.h"

namespace ox::test {

/// Captures log lines instead of standard error and log file.
class LogCapture {
  public:
    explicit LogCapture(LogLevel lowest = LogLevel::DEBUG)
        : old_level_(log_level().exchange(static_cast<int32_t>(lowest))) {
        const MutexLock lock(log_mutex());
        old_console_ = log_sinks().console;
        old_file_ = log_sinks().file;
        log_sinks().console = false;
        log_sinks().file = stream_ = ::open_memstream(&text_, &size_);
    }
    ~LogCapture() {
        {
            const MutexLock lock(log_mutex());
            log_sinks().console = old_console_;
            log_sinks().file = old_file_;
        }
        log_level() = old_level_;
        std::fclose(stream_);
        std::free(text_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Everything so far, with prefixes.
    [[nodiscard]] std::string text() const {
        const MutexLock lock(log_mutex());
        return {text_, size_};
    }

    /// The number of lines with exactly this level and message.
    [[nodiscard]] int count(std::string level, std::string_view message) const {
        level.resize(5, ' ');
        return times("[" + level + "] " + std::string(message) + "\n");
    }

    /// The number of occurrences of `wanted`.
    [[nodiscard]] int times(std::string_view wanted) const {
        const std::string all = text();
        int found = 0;
        for (size_t at = 0; (at = all.find(wanted, at)) != std::string::npos; ++at)
            ++found;
        return found;
    }

  private:
    int32_t old_level_;
    bool old_console_ = true;
    std::FILE* old_file_ = nullptr;
    std::FILE* stream_ = nullptr;
    char* text_ = nullptr;  ///< grown by the stream, current after every written line
    size_t size_ = 0;
};

}  // namespace ox::test
