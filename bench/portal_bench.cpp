// Portal capture of a moving Wayland desktop: CPU time per frame of the capturing process, and the
// age of a picture when captured and when encoded. The compositor's end runs in a process of its
// own and writes the time into each picture.
//
//   portal_bench            1280x720 and 1920x1080 at 60 fps
//   portal_bench SECONDS    the time that each measurement takes (default 5)

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string_view>
#include <thread>
#include <vector>

#include "base/sleep.h"
#include "cpu_time.h"
#include "log/log.h"
#include "support/child_process.h"
#include "support/log_file.h"
#include "support/pipewire_source.h"
#include "support/temp_dir.h"
#include "support/wayland_desktop.h"
#include "video/portal/portal_capture.h"
#include "video/video_encoder.h"

namespace ox {
namespace {

constexpr uint32_t kFps = 60;
constexpr uint32_t kKbps = 15'000;

/// The moving test picture with the time at which it was made in its first eight bytes.
test::ScreenPictures stamped_pictures(uint32_t width, uint32_t height) {
    return [moving = test::moving_pictures(width, height)](CapturedFrame& frame) {
        const bool made = moving(frame);
        const uint64_t now = steady_now_us();
        std::memcpy(frame.data.data(), &now, sizeof now);
        return made;
    };
}

uint64_t stamp_of(const CapturedFrame& frame) {
    uint64_t stamp = 0;
    std::memcpy(&stamp, frame.pixels(), sizeof stamp);
    return stamp;
}

/// Milliseconds at this share of the ages (us).
double percentile(std::vector<uint64_t>& ages, double share) {
    if (ages.empty()) return 0;
    const auto at = static_cast<ptrdiff_t>(share * static_cast<double>(ages.size() - 1));
    std::nth_element(ages.begin(), ages.begin() + at, ages.end());
    return static_cast<double>(ages[static_cast<size_t>(at)]) / 1e3;
}

/// Takes pictures as a session does, and encodes them when there is an encoder.
bool measure(PortalCapture& capture, VideoEncoder* encoder, int seconds) {
    CapturedFrame frame;
    EncodedFrame encoded;
    std::vector<uint64_t> captured;
    std::vector<uint64_t> done;
    uint64_t last = 0;
    const auto begin = SteadyClock::now();
    const double cpu = bench::cpu_ms();
    const int frames = seconds * static_cast<int>(kFps);
    for (int i = 0; i < frames; ++i) {
        sleep_until_steady(begin + i * std::chrono::microseconds(1'000'000 / kFps));
        if (capture.capture_frame(frame) != 0) return false;
        const uint64_t stamp = stamp_of(frame);
        if (stamp != last) captured.push_back(steady_now_us() - stamp);
        if (encoder != nullptr) {
            encoded.data.clear();
            if (!encoder->encode_bgra(frame.pixels(), frame.width, frame.height, steady_now_us(),
                                      encoded)) {
                return false;
            }
            if (stamp != last) done.push_back(steady_now_us() - stamp);
        }
        last = stamp;
    }
    const double per_frame = (bench::cpu_ms() - cpu) / frames;
    std::printf("%5ux%-5u %-8s %8.2f %8zu %7.1f /%5.1f", frame.width, frame.height,
                encoder != nullptr ? "encoded" : "captured", per_frame, captured.size(),
                percentile(captured, 0.5), percentile(captured, 0.99));
    if (encoder != nullptr) {
        std::printf(" %9.1f /%5.1f", percentile(done, 0.5), percentile(done, 0.99));
    }
    std::printf("\n");
    return true;
}

bool measure_size(test::WaylandDesktop& desktop, const char* self, uint32_t width, uint32_t height,
                  int seconds) {
    const test::TempDir dir;
    const test::ChildProcess source({.argv = {self, "source", desktop.pipewire_socket(),
                                              std::to_string(width), std::to_string(height)},
                                     .environment = {},
                                     .stdout_path = dir.file("node")});
    const auto node = test::LogFile(dir.file("node")).wait_for("node", std::chrono::seconds(10));
    if (!node || !desktop.start_portal({*node})) return false;
    PortalCapture capture(
        {.bus_address = desktop.bus_address(), .token_file = RestoreTokenFile(dir.file("token"))});
    if (!capture.init() || !measure(capture, nullptr, seconds)) return false;
    VideoEncoder encoder;
    EncoderSettings settings;
    settings.width = width;
    settings.height = height;
    settings.fps = kFps;
    settings.bitrate_kbps = kKbps;
    return encoder.init(settings) && measure(capture, &encoder, seconds);
}

[[noreturn]] void run_source(char** arguments) {
    const auto side = [](const char* text) {
        return static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
    };
    const test::PipewireSource source(arguments[0],
                                      stamped_pictures(side(arguments[1]), side(arguments[2])));
    std::printf("node=%u\n", source.node());
    std::fflush(stdout);
    for (;;)
        std::this_thread::sleep_for(std::chrono::hours(1));
}

}  // namespace
}  // namespace ox

int main(int argc, char** argv) {
    ox::log_level() = static_cast<int32_t>(ox::LogLevel::ERROR);
    if (argc == 5 && std::string_view(argv[1]) == "source") ox::run_source(argv + 2);
    const int seconds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    const auto desktop = ox::test::WaylandDesktop::start();
    if (!desktop) {
        std::fprintf(stderr, "portal_bench: no session bus or PipeWire daemon here\n");
        return 1;
    }
    ox::use_minimal_timer_slack();
    std::printf("%-20s %8s %8s %14s %16s\n", "", "CPU ms", "new", "age ms p50/p99",
                "encoded p50/p99");
    for (const auto& [width, height] : {std::pair{1280U, 720U}, std::pair{1920U, 1080U}}) {
        if (!ox::measure_size(*desktop, argv[0], width, height, seconds)) return 1;
    }
    return 0;
}
