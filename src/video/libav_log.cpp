#include "video/libav_log.h"

extern "C" {
#include <libavutil/log.h>
}

#include <array>
#include <cstdarg>
#include <mutex>
#include <string_view>

#include "log/log.h"

namespace ox {
namespace {

// Called by libav from whatever thread it works on.
void log_line(void* source, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_WARNING || log_level() > static_cast<int32_t>(LogLevel::DEBUG)) return;
    std::array<char, 512> text{};
    int print_prefix = 1;
    av_log_format_line2(source, level, format, arguments, text.data(),
                        static_cast<int>(text.size()), &print_prefix);
    std::string_view line(text.data());
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.remove_suffix(1);
    OX_DEBUG("VideoEncoder: libav: %.*s", static_cast<int>(line.size()), line.data());
}

}  // namespace

void route_libav_log() {
    static std::once_flag routed;
    std::call_once(routed, [] { av_log_set_callback(log_line); });
}

}  // namespace ox
