#pragma once

#include <sys/resource.h>

namespace ox::bench {

/// CPU time of this process so far, in milliseconds.
inline double cpu_ms() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    const auto ms = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

}  // namespace ox::bench
