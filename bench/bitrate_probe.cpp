// Plays an agent's stream through a shaped path with the bitrate of orvex-play's controller, and
// prints its changes, the pauses of the picture and the rates after each step of the path.
//
//   bitrate_probe PORT-BASE WxH FPS SECONDS [option...]
//     steps=S:KBPS,S:KBPS...   rate of the path from second S on (0:20000)
//     loss=PERCENT jitter=MS reorder=0|1 queue=MS bucket=KB delay=MS seed=N
//     start=KBPS               bitrate at the start (10000)
//     hold=MS                  how long the assembler waits for reordered packets (15)
//     gate=0|1                 1: pictures after a loss do not count before a keyframe (0)
//     trace=1                  prints every sample
//
// The session token comes from ORVEX_TOKEN. Decodes nothing, so that the machine's CPU is the
// agent's.

#include <cstdio>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

#include "base/clock.h"
#include "base/sleep.h"
#include "launcher/client/control_client.h"
#include "launcher/client/control_messages.h"
#include "launcher/client/media_socket.h"
#include "launcher/client/video_workers.h"
#include "path_shaper.h"
#include "play/bitrate/bitrate_controller.h"
#include "play/bitrate/path_meter.h"

namespace ox::bench {
namespace {

struct Plan {
    uint16_t port = 0;
    int width = 0;
    int height = 0;
    int fps = 0;
    double seconds = 0;
    uint32_t start_kbps = 10'000;
    uint64_t hold_us = 15'000;
    bool gate = false;
    bool trace = false;
    test::ShapedPath::Setup path;
};

/// The pictures that could be shown, and how many bytes came for them in each second.
class Pictures {
  public:
    void add(const launcher::AssembledFrame& frame, uint64_t started_us) {
        const double at = static_cast<double>(frame.completed - started_us) / 1e6;
        if (count_++ > 0 && at - last_ > 0.25) {
            std::printf("%7.2f s  no picture for %.2f s\n", at, at - last_);
        }
        if (count_ > 1) longest_ = std::max(longest_, at - last_);
        last_ = at;
        bytes_[static_cast<int>(at)] += frame.data.size();
    }
    [[nodiscard]] uint64_t count() const { return count_; }
    [[nodiscard]] double longest() const { return longest_; }
    [[nodiscard]] double kbps(int from, int to) const {
        double bytes = 0;
        for (int second = from; second < to; ++second) {
            const auto it = bytes_.find(second);
            if (it != bytes_.end()) bytes += static_cast<double>(it->second);
        }
        return to > from ? bytes / 125 / (to - from) : 0;
    }

  private:
    uint64_t count_ = 0;
    double last_ = 0;
    double longest_ = 0;
    std::map<int, size_t> bytes_;
};

int run(const Plan& plan) {
    launcher::MediaSocket socket;
    std::string error;
    if (!socket.open(0, error)) throw std::runtime_error(error);
    const char* token = std::getenv("ORVEX_TOKEN");
    launcher::ControlClient control;
    const std::string auth =
        launcher::make_auth_line({.token = token != nullptr ? token : "",
                                  .width = plan.width,
                                  .height = plan.height,
                                  .fps = plan.fps,
                                  .bitrate_kbps = static_cast<int32_t>(plan.start_kbps),
                                  .udp_ip = {}});
    if (control.connect("127.0.0.1", static_cast<uint16_t>(plan.port + 3), auth,
                        SteadyClock::now() + std::chrono::seconds(10),
                        [] { return false; }) != launcher::ConnectResult::Ready) {
        throw std::runtime_error(control.error());
    }
    PathShaper shaper(plan.path, static_cast<uint16_t>(plan.port + 4));
    socket.set_agent("127.0.0.1", shaper.port());

    play::PathMeter meter;
    play::BitrateController controller(plan.start_kbps, {});
    launcher::FrameQueue queue(600);
    launcher::VideoReceiver::Config config{.limits = {}, .decode_damaged = !plan.gate};
    config.limits.reorder_us = plan.hold_us;
    if (plan.hold_us > 20'000) config.limits.reorder_frames = 4;
    launcher::ReceiveWorker receive(
        socket, queue, std::span<const uint8_t, 32>(control.keys().video_key), config,
        [&](const launcher::KeyframeRequest&) { control.send_line(launcher::kRequestIdrLine); },
        [&](const PacketHeader& header, size_t bytes, uint64_t arrival_us) {
            meter.on_packet(header, bytes, arrival_us);
        });
    receive.start();

    Pictures pictures;
    uint64_t started = 0;
    std::jthread reader([&] {
        while (const auto frame = queue.pop())
            pictures.add(*frame, shaper.started_us());
    });
    int changes = 0;
    double least_gap = plan.seconds;
    double changed_at = -plan.seconds;
    auto next = SteadyClock::now();
    while (control.is_connected()) {
        next += std::chrono::milliseconds(100);
        sleep_until_steady(next);
        const uint64_t now = steady_now_us();
        if (started == 0) started = shaper.started_us();
        if (started == 0) continue;
        const double at = static_cast<double>(now - started) / 1e6;
        if (at >= plan.seconds) break;
        const play::PathSample sample = meter.take_sample(now, 0);
        if (plan.trace) {
            std::printf(
                "%7.2f s  received %.0f sent %.0f burst %.0f (%.0f..%.0f) lost %.3f queue "
                "%.0f ms\n",
                at, sample.received_kbps, sample.sent_kbps, sample.burst_kbps,
                sample.burst_low_kbps, sample.burst_high_kbps, sample.lost, sample.queue_ms);
        }
        const uint32_t before = controller.target_kbps();
        const auto kbps = controller.update(sample);
        if (!kbps) continue;
        control.send_line(launcher::make_set_bitrate_line(static_cast<int32_t>(*kbps)));
        std::printf(
            "%7.2f s  %u -> %u kbit/s (received %.0f, burst %.0f, lost %.1f %%, queue %.0f "
            "ms)\n",
            at, before, *kbps, sample.received_kbps, sample.burst_kbps, 100 * sample.lost,
            sample.queue_ms);
        if (changes++ > 0) least_gap = std::min(least_gap, at - changed_at);
        changed_at = at;
    }
    receive.stop();
    const auto total = receive.snapshot();
    queue.close();
    reader.join();
    control.send_line(launcher::kEndSessionLine);
    std::printf("pictures=%llu lost=%llu longest_stall_s=%.2f changes=%d least_gap_s=%.2f\n",
                static_cast<unsigned long long>(pictures.count()),
                static_cast<unsigned long long>(total.stream.assembly.frames_lost),
                pictures.longest(), changes, least_gap);
    for (size_t i = 0; i < plan.path.steps.size(); ++i) {
        const auto [from, rate] = plan.path.steps[i];
        const double end =
            i + 1 < plan.path.steps.size() ? plan.path.steps[i + 1].first : plan.seconds;
        const int last = static_cast<int>(end);
        const int tenth = static_cast<int>(from) + 10;
        std::printf("path=%.0f from=%.0f", rate, from);
        if (tenth < last) {
            const int upto = std::min(tenth + 3, last);
            const double kbps = pictures.kbps(tenth, upto);
            std::printf(" pictures_kbps_after_10s=%.0f (%.0f %%)", kbps, 100 * kbps / rate);
        }
        std::puts("");
    }
    return 0;
}

void parse_steps(const char* text, Plan& plan) {
    plan.path.steps.clear();
    double from = 0;
    double rate = 0;
    int used = 0;
    while (std::sscanf(text, "%lf:%lf%n", &from, &rate, &used) == 2) {
        plan.path.steps.emplace_back(from, rate);
        text += used;
        if (*text == ',') ++text;
    }
    if (plan.path.steps.empty()) throw std::runtime_error("no steps");
}

void parse_option(const std::string& option, Plan& plan) {
    const size_t equals = option.find('=');
    if (equals == std::string::npos) throw std::runtime_error("no value: " + option);
    const std::string name = option.substr(0, equals);
    const char* text = option.c_str() + equals + 1;
    const double value = std::atof(text);
    if (name == "steps")
        parse_steps(text, plan);
    else if (name == "loss")
        plan.path.loss = value / 100;
    else if (name == "jitter")
        plan.path.jitter_ms = value;
    else if (name == "reorder")
        plan.path.reorders = value != 0;
    else if (name == "queue")
        plan.path.queue_ms = value;
    else if (name == "bucket")
        plan.path.bucket_kbytes = value;
    else if (name == "delay")
        plan.path.delay_ms = value;
    else if (name == "seed")
        plan.path.seed = static_cast<uint32_t>(value);
    else if (name == "start")
        plan.start_kbps = static_cast<uint32_t>(value);
    else if (name == "hold")
        plan.hold_us = static_cast<uint64_t>(value * 1000);
    else if (name == "gate")
        plan.gate = value != 0;
    else if (name == "trace")
        plan.trace = value != 0;
    else
        throw std::runtime_error("unknown: " + option);
}

}  // namespace
}  // namespace ox::bench

int main(int argc, char** argv) {
    ox::bench::Plan plan;
    if (argc < 5 || std::sscanf(argv[2], "%dx%d", &plan.width, &plan.height) != 2) {
        std::fprintf(stderr, "usage: %s PORT-BASE WxH FPS SECONDS [NAME=VALUE...]\n", argv[0]);
        return 2;
    }
    plan.port = static_cast<uint16_t>(std::atoi(argv[1]));
    plan.fps = std::atoi(argv[3]);
    plan.seconds = std::atof(argv[4]);
    try {
        for (int i = 5; i < argc; ++i)
            ox::bench::parse_option(argv[i], plan);
        std::setvbuf(stdout, nullptr, _IOLBF, 0);
        return ox::bench::run(plan);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bitrate_probe: %s\n", error.what());
        return 1;
    }
}
