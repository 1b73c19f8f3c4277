#include "video/libav_log.h"

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <mutex>

#include "log/log.h"

namespace ox {
namespace {

LibavLogTape*& running_tape() {
    thread_local LibavLogTape* tape = nullptr;
    return tape;
}

/// Without "[h264_nvenc @ 0x55d2b2d988c0] ", which libav puts before its words.
const char* after_prefix(const char* words) {
    while (*words == '[') {
        const char* end = std::strstr(words, "] ");
        if (end == nullptr) break;
        words = end + 2;
    }
    return words;
}

// Called by libav from whatever thread it works on; may come once for each part of a line.
void log_line(void* source, int level, const char* format, va_list arguments) {
    LibavLogTape* tape = running_tape();
    const bool logged = log_level() <= static_cast<int32_t>(LogLevel::DEBUG);
    if (level > AV_LOG_WARNING || (!logged && tape == nullptr)) return;
    std::array<char, 512> text{};
    int print_prefix = 1;
    av_log_format_line2(source, level, format, arguments, text.data(),
                        static_cast<int>(text.size()), &print_prefix);
    if (tape != nullptr) tape->append(level, after_prefix(text.data()));
    std::string_view line(text.data());
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.remove_suffix(1);
    OX_DEBUG("VideoEncoder: libav: %.*s", static_cast<int>(line.size()), line.data());
}

}  // namespace

LibavLogTape::LibavLogTape() {
    running_tape() = this;
}

LibavLogTape::~LibavLogTape() {
    running_tape() = nullptr;
}

void LibavLogTape::Words::append(std::string_view words) {
    words = words.substr(0, bytes.size() - size);
    std::copy(words.begin(), words.end(), bytes.begin() + static_cast<ptrdiff_t>(size));
    size += words.size();
}

void LibavLogTape::append(int level, std::string_view words) {
    all_.append(words);
    if (level <= AV_LOG_ERROR) errors_.append(words);
}

void route_libav_log() {
    static std::once_flag routed;
    std::call_once(routed, [] { av_log_set_callback(log_line); });
}

}  // namespace ox
