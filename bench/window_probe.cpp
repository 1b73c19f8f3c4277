// Reads the painter's time strip back from the top left corner of another X display, where a player
// shows it, 400 times a second over a window: how old a picture is when it appears, and what the
// player's process takes meanwhile.
//
//   window_probe DISPLAY PID WARM-UP-S WINDOW-S
//
// Prints one line of name=value pairs: latencies in milliseconds, CPU in milliseconds per picture.

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/sleep.h"
#include "time_strip.h"

namespace {

using ox::bench::kStripBlock;
using ox::bench::kStripWidth;

struct XDeleter {
    void operator()(Display* display) const { XCloseDisplay(display); }
    void operator()(XImage* image) const { XDestroyImage(image); }
};

std::optional<uint64_t> read_display(Display* display) {
    const std::unique_ptr<XImage, XDeleter> image(XGetImage(
        display, DefaultRootWindow(display), 0, 0, kStripWidth, kStripBlock, AllPlanes, ZPixmap));
    if (!image || image->bits_per_pixel != 32) return std::nullopt;
    std::vector<uint8_t> green(size_t{kStripWidth} * kStripBlock);
    for (size_t i = 0; i < green.size(); ++i) {
        const size_t row = i / kStripWidth;
        const size_t at = row * static_cast<size_t>(image->bytes_per_line) + i % kStripWidth * 4;
        green[i] = static_cast<uint8_t>(image->data[at + 1]);
    }
    return ox::bench::read_strip(green.data(), kStripWidth, kStripWidth, kStripBlock);
}

/// User and system time of a process so far, proc(5); 0 when it is gone.
double cpu_ms_of(const std::string& pid) {
    std::ifstream file("/proc/" + pid + "/stat");
    std::string line;
    std::getline(file, line);
    std::istringstream fields(line.substr(std::min(line.rfind(')') + 1, line.size())));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) * 1e3 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double percentile(const std::vector<double>& sorted, double share) {
    return sorted[static_cast<size_t>(share * static_cast<double>(sorted.size() - 1))];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s DISPLAY PID WARM-UP-S WINDOW-S\n", argv[0]);
        return 2;
    }
    const std::unique_ptr<Display, XDeleter> display(XOpenDisplay(argv[1]));
    if (!display || DefaultDepth(display.get(), DefaultScreen(display.get())) != 24 ||
        DisplayWidth(display.get(), DefaultScreen(display.get())) < static_cast<int>(kStripWidth)) {
        std::fprintf(stderr, "%s: cannot read '%s' with depth 24\n", argv[0], argv[1]);
        return 1;
    }
    ox::use_minimal_timer_slack();
    using std::chrono::duration_cast;
    constexpr std::chrono::microseconds kPeriod{2500};
    const auto seconds = [](const char* text) {
        return duration_cast<ox::SteadyClock::duration>(
            std::chrono::duration<double>(std::atof(text)));
    };
    const auto begin = ox::SteadyClock::now() + seconds(argv[3]);
    const auto end = begin + seconds(argv[4]);
    ox::sleep_until_steady(begin);
    const double cpu_before = cpu_ms_of(argv[2]);

    std::vector<double> ages;
    uint64_t last = read_display(display.get()).value_or(0);
    auto last_change = begin;
    double longest_ms = 0;
    for (auto tick = begin; tick < end; tick = std::max(tick + kPeriod, ox::SteadyClock::now())) {
        ox::sleep_until_steady(tick);
        const auto shown = read_display(display.get());
        if (!shown || *shown == last) continue;
        const auto now = ox::SteadyClock::now();
        ages.push_back(static_cast<double>(ox::steady_now_us() - *shown) / 1e3);
        longest_ms = std::max(longest_ms,
                              std::chrono::duration<double, std::milli>(now - last_change).count());
        last_change = now;
        last = *shown;
    }
    const double cpu = cpu_ms_of(argv[2]) - cpu_before;
    if (ages.empty()) {
        std::puts("pictures=0");
        return 1;
    }
    std::sort(ages.begin(), ages.end());
    const auto count = static_cast<double>(ages.size());
    std::printf("pictures=%.0f fps=%.1f p50=%.1f p99=%.1f longest=%.0f cpu=%.2f\n", count,
                count / std::atof(argv[4]), percentile(ages, 0.5), percentile(ages, 0.99),
                longest_ms, cpu / count);
}
