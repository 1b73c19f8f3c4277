#include "log/log.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <ctime>
#include <exception>

#include "log/log_path.h"

namespace ox {
namespace {

constexpr size_t kPrefixSize = 64;     // with the terminating zero
constexpr size_t kMessageSize = 2048;  // with the terminating zero
constexpr int64_t kRotateAboveBytes = 10'485'760;

// Callers may log between a failed call and the check of its errno.
class ErrnoGuard {
  public:
    ErrnoGuard() noexcept : saved_(errno) {}
    ErrnoGuard(const ErrnoGuard&) = delete;
    ErrnoGuard& operator=(const ErrnoGuard&) = delete;
    ~ErrnoGuard() { errno = saved_; }

  private:
    int saved_;
};

// Bytes that a printf-like call wrote to a buffer of `size` bytes, from its return value.
size_t written_length(int result, size_t size) noexcept {
    return result < 0 ? 0 : std::min(static_cast<size_t>(result), size - 1);
}

size_t format_prefix(char* out, const char* level_name) noexcept {
    using std::chrono::microseconds;
    const auto now = std::chrono::system_clock::now();
    const int64_t since_epoch_us =
        std::chrono::duration_cast<microseconds>(now.time_since_epoch()).count();
    const time_t seconds = std::chrono::system_clock::to_time_t(now);
    const int64_t us = since_epoch_us - int64_t{seconds} * microseconds::period::den;
    tm local{};
    ::localtime_r(&seconds, &local);
    return written_length(
        std::snprintf(out, kPrefixSize, "[%04d-%02d-%02d %02d:%02d:%02d.%06lld] [%-5s] ",
                      local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                      local.tm_min, local.tm_sec, static_cast<long long>(us), level_name),
        kPrefixSize);
}

void write_line(std::FILE* to, const char* line, size_t length) noexcept {
    const bool written = std::fwrite(line, 1, length, to) == length;
    const bool flushed = std::fflush(to) == 0;
    if (!written || !flushed) std::clearerr(to);
}

// A device (/dev/null, /dev/full) or a pipe that is used as log file must not be renamed.
bool is_regular_file(std::FILE* file) noexcept {
    struct stat info {};
    return ::fstat(::fileno(file), &info) == 0 && S_ISREG(info.st_mode);
}

// Moves the generations up by one and opens a new log file; `sinks.file` is null when that fails.
void rotate(LogSinks& sinks) {
    const std::string slot1 = rotated_log_name(sinks.path, 1);
    const std::string slot2 = rotated_log_name(sinks.path, 2);
    const std::string slot3 = rotated_log_name(sinks.path, 3);
    std::fclose(sinks.file);  // NOLINT(cppcoreguidelines-owning-memory)
    ::unlink(slot3.c_str());
    std::rename(slot2.c_str(), slot3.c_str());
    std::rename(slot1.c_str(), slot2.c_str());
    std::rename(sinks.path.c_str(), slot1.c_str());
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the sinks own it
    sinks.file = std::fopen(sinks.path.c_str(), "we");
    sinks.bytes = 0;
    if (sinks.file != nullptr && sinks.stderr_redirected) {
        ::dup2(::fileno(sinks.file), STDERR_FILENO);
    }
}

void rotate_if_due(LogSinks& sinks) noexcept {
    if (sinks.bytes <= kRotateAboveBytes) return;
    if (!is_regular_file(sinks.file)) {
        sinks.bytes = 0;
        return;
    }
    try {
        rotate(sinks);
    } catch (const std::exception&) {
        // No memory for the names; nothing was renamed yet, so keep the current file.
        return;
    }
}

void write_to_sinks(const char* line, size_t length) noexcept {
    const MutexLock lock(log_mutex());
    LogSinks& sinks = log_sinks();
    if (sinks.console) write_line(stderr, line, length);
    if (sinks.file == nullptr) return;
    rotate_if_due(sinks);
    if (sinks.file == nullptr) return;
    write_line(sinks.file, line, length);
    // Lines that did not fit on a full disk count too: the rotation they cause frees space.
    sinks.bytes += static_cast<int64_t>(length);
}

}  // namespace

LogSinks::~LogSinks() {
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
    if (file != nullptr) std::fclose(file);
    file = nullptr;
}

std::atomic<int32_t>& log_level() {
    static std::atomic<int32_t> level{static_cast<int32_t>(LogLevel::INFO)};
    return level;
}

LogSinks& log_sinks() {
    static LogSinks sinks;
    return sinks;
}

Mutex& log_mutex() {
    static Mutex mutex;
    return mutex;
}

void log_msg(LogLevel level, const char* level_name, const char* format, ...) {
    if (static_cast<int32_t>(level) < log_level().load(std::memory_order_relaxed)) return;
    const ErrnoGuard errno_guard;
    // One buffer for the whole line, so that it reaches each sink in a single write.
    std::array<char, kPrefixSize + kMessageSize> line{};
    size_t length = format_prefix(line.data(), level_name);
    va_list arguments;
    va_start(arguments, format);
    length += written_length(std::vsnprintf(line.data() + length, kMessageSize, format, arguments),
                             kMessageSize);
    va_end(arguments);
    line[length++] = '\n';
    write_to_sinks(line.data(), length);
}

}  // namespace ox
