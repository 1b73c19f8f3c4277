#include "video/libav.h"

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

LibavLogCapture*& active_capture() {
    thread_local LibavLogCapture* capture = nullptr;
    return capture;
}

/// Without "[h264_nvenc @ 0x55d2b2d988c0] ", libav's prefix.
const char* after_prefix(const char* text) {
    while (*text == '[') {
        const char* end = std::strstr(text, "] ");
        if (end == nullptr) break;
        text = end + 2;
    }
    return text;
}

// Called by libav on any of its threads; may be called once for each part of a line.
void log_line(void* source, int level, const char* format, va_list arguments) {
    LibavLogCapture* capture = active_capture();
    const bool logged = log_level() <= static_cast<int32_t>(LogLevel::DEBUG);
    if (level > AV_LOG_WARNING || (!logged && capture == nullptr)) return;
    std::array<char, 512> text{};
    int print_prefix = 1;
    av_log_format_line2(source, level, format, arguments, text.data(),
                        static_cast<int>(text.size()), &print_prefix);
    if (capture != nullptr) capture->append(level, after_prefix(text.data()));
    std::string_view line(text.data());
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.remove_suffix(1);
    OX_DEBUG("VideoEncoder: libav: %.*s", static_cast<int>(line.size()), line.data());
}

}  // namespace

LibavLogCapture::LibavLogCapture() {
    static std::once_flag routed;
    std::call_once(routed, [] { av_log_set_callback(log_line); });
    active_capture() = this;
}

LibavLogCapture::~LibavLogCapture() {
    active_capture() = nullptr;
}

void LibavLogCapture::Buffer::append(std::string_view text) {
    text = text.substr(0, bytes.size() - size);
    std::copy(text.begin(), text.end(), bytes.begin() + static_cast<ptrdiff_t>(size));
    size += text.size();
}

void LibavLogCapture::append(int level, std::string_view text) {
    all_.append(text);
    if (level <= AV_LOG_ERROR) errors_.append(text);
}

}  // namespace ox
