// Runs one sender of the pipeline comparison, receives and decodes its stream, and measures it over
// a window after a warm-up, bursts from the start. The picture contains the painter's time strip.
//
//   pipeline_probe agent PORT-BASE WxH FPS KBPS WARM-UP-S WINDOW-S COMMAND...
//   pipeline_probe rtp   PORT      WxH FPS KBPS WARM-UP-S WINDOW-S COMMAND...
//   pipeline_probe srtp  PORT      WxH FPS KBPS WARM-UP-S WINDOW-S COMMAND...
//
// The agent's session token comes from ORVEX_TOKEN, the key of srtp from SRTP_KEY (hex). Prints one
// line of name=value pairs; the last one, hist, counts the pictures by their latency in whole
// milliseconds, from 0 on.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/clock.h"
#include "base/sleep.h"
#include "burst_meter.h"
#include "launcher/client/control_client.h"
#include "launcher/client/control_messages.h"
#include "launcher/client/media_socket.h"
#include "launcher/client/timing_stats.h"
#include "launcher/client/video_decoder.h"
#include "launcher/client/video_receiver.h"
#include "rtp_h264.h"
#include "srtp_opener.h"
#include "support/child_process.h"
#include "time_strip.h"

namespace ox::bench {
namespace {

struct Plan {
    std::string kind;  ///< agent, rtp, srtp
    uint16_t port = 0;
    int width = 0;
    int height = 0;
    int fps = 0;
    int kbps = 0;
    double warm_up_s = 0;
    double window_s = 0;
    std::vector<std::string> command;
};

/// Access units from the network, in order.
class Source {
  public:
    using Sink = std::function<void(const launcher::AssembledFrame&)>;
    virtual ~Source() = default;
    /// Called after the sender's start.
    virtual void start() = 0;
    virtual void receive(const Sink& sink) = 0;
    [[nodiscard]] virtual uint64_t lost() const = 0;
    [[nodiscard]] size_t largest_burst() const { return burst_.largest(); }

  protected:
    void open_socket(uint16_t port) {
        std::string error;
        if (!socket_.open(port, error)) throw std::runtime_error(error);
        socket_.enable_arrival_times();
    }
    /// Passes on the datagrams of the next `kPoll`.
    void receive_datagrams(const launcher::MediaSocket::Sink& sink) {
        socket_.receive(kPoll, [&](std::span<const uint8_t> datagram) {
            burst_.add(socket_.arrival_ns(), datagram.size());
            sink(datagram);
        });
    }

    launcher::MediaSocket socket_;

  private:
    static constexpr std::chrono::milliseconds kPoll{5};

    BurstMeter burst_;
};

class RtpSource final : public Source {
  public:
    /// With a key (hex) the packets are SRTP's.
    explicit RtpSource(uint16_t port, const std::optional<std::string>& key) {
        open_socket(port);
        if (key) opener_.emplace(*key);
    }
    void start() override {}
    void receive(const Sink& sink) override {
        receive_datagrams([&](std::span<const uint8_t> datagram) {
            if (opener_) datagram = opener_->open(datagram);
            if (auto unit = units_.push(datagram)) {
                launcher::AssembledFrame frame;
                frame.data = std::move(*unit);
                sink(frame);
            }
        });
    }
    [[nodiscard]] uint64_t lost() const override { return units_.lost(); }

  private:
    std::optional<SrtpOpener> opener_;
    RtpH264 units_;
};

class AgentSource final : public Source {
  public:
    explicit AgentSource(const Plan& plan) : plan_(plan) { open_socket(plan.port); }
    void start() override {
        const char* token = std::getenv("ORVEX_TOKEN");
        const launcher::AuthRequest request{.token = token != nullptr ? token : "",
                                            .codec = launcher::Codec::H264,
                                            .width = plan_.width,
                                            .height = plan_.height,
                                            .fps = plan_.fps,
                                            .bitrate_kbps = plan_.kbps,
                                            .udp_ip = {}};
        const auto result = control_.connect(
            "127.0.0.1", static_cast<uint16_t>(plan_.port + 3), launcher::make_auth_line(request),
            SteadyClock::now() + std::chrono::seconds(10), [] { return false; });
        if (result != launcher::ConnectResult::Ready) throw std::runtime_error(control_.error());
        socket_.set_agent("127.0.0.1", static_cast<uint16_t>(plan_.port + 4));
        receiver_.emplace(std::span<const uint8_t, 32>(control_.keys().video_key),
                          launcher::VideoReceiver::Config{});
    }
    void receive(const Sink& sink) override {
        if (receiver_->stats().packets == 0) socket_.send_probe();
        receive_datagrams([&](std::span<const uint8_t> datagram) {
            receiver_->on_datagram(datagram, steady_now_us());
            deliver_frames(sink);
        });
        receiver_->on_time(steady_now_us());
        deliver_frames(sink);
        if (receiver_->take_keyframe_request(steady_now_us())) {
            control_.send_line(launcher::kRequestIdrLine);
        }
    }
    [[nodiscard]] uint64_t lost() const override {
        return receiver_->stats().assembly.packets_lost;
    }

  private:
    void deliver_frames(const Sink& sink) {
        while (const auto frame = receiver_->next_frame())
            sink(*frame);
    }

    const Plan plan_;
    launcher::ControlClient control_;
    std::optional<launcher::VideoReceiver> receiver_;
};

// Each sender is a single process, so its own CPU time is all of it.
class Measurement {
  public:
    explicit Measurement(const test::ChildProcess& sender)
        : sender_(sender), begin_(SteadyClock::now()), cpu_(sender.cpu_time()) {}

    void add(const launcher::DecodedPicture& picture) {
        const uint64_t now = steady_now_us();
        ++frames_;
        const auto painted =
            read_strip(picture.luma.bytes.data(), static_cast<ptrdiff_t>(picture.luma.stride),
                       picture.luma.width, picture.luma.height);
        if (painted && *painted <= now) {
            latency_.add(now - *painted);
            ++by_ms_[std::min((now - *painted) / 1000, by_ms_.size() - 1)];
        } else {
            ++unreadable_;
        }
    }
    /// A complete frame; those of the agent have a capture time.
    void add_frame(const launcher::AssembledFrame& frame) {
        if (frame.timestamp != 0 && frame.completed >= frame.timestamp) {
            wire_.add(frame.completed - frame.timestamp);
        }
    }
    [[nodiscard]] double seconds() const {
        return std::chrono::duration<double>(SteadyClock::now() - begin_).count();
    }
    void print(const Source& source) const {
        const double time = seconds();
        const auto cpu = static_cast<double>((sender_.cpu_time() - cpu_).count());
        const auto frames = static_cast<double>(frames_);
        const auto ms = [](const launcher::LatencyHistogram& times, double percent) {
            return static_cast<double>(times.percentile_us(percent)) / 1000;
        };
        std::printf(
            "frames=%llu fps=%.1f cpu_ms=%.3f p50_ms=%.1f p99_ms=%.1f wire_p50_ms=%.1f "
            "wire_p99_ms=%.1f rss_mb=%.1f burst_kb=%.0f lost=%llu unreadable=%llu hist=",
            static_cast<unsigned long long>(frames_), frames / time, cpu / frames, ms(latency_, 50),
            ms(latency_, 99), ms(wire_, 50), ms(wire_, 99), peak_resident_mb(),
            static_cast<double>(source.largest_burst()) / 1000,
            static_cast<unsigned long long>(source.lost()),
            static_cast<unsigned long long>(unreadable_));
        for (size_t i = 0; i < by_ms_.size(); ++i)
            std::printf(i == 0 ? "%u" : ",%u", by_ms_[i]);
        std::puts("");
    }
    [[nodiscard]] uint64_t frames() const { return frames_; }

  private:
    [[nodiscard]] double peak_resident_mb() const {
        std::ifstream status("/proc/" + std::to_string(sender_.pid()) + "/status");
        for (std::string name; status >> name;) {
            double kilobytes = 0;
            if (name == "VmHWM:" && status >> kilobytes) return kilobytes / 1024;
        }
        return 0;
    }

    const test::ChildProcess& sender_;
    SteadyClock::time_point begin_;
    std::chrono::milliseconds cpu_;
    launcher::LatencyHistogram latency_;  ///< painted to decoded
    launcher::LatencyHistogram wire_;     ///< captured to last datagram; the agent's streams only
    std::array<unsigned, 60> by_ms_{};    ///< painted to decoded; the last one counts the rest
    uint64_t frames_ = 0;
    uint64_t unreadable_ = 0;
};

std::unique_ptr<Source> make_source(const Plan& plan) {
    if (plan.kind == "agent") return std::make_unique<AgentSource>(plan);
    std::optional<std::string> key;
    if (plan.kind == "srtp") {
        const char* text = std::getenv("SRTP_KEY");
        key = text != nullptr ? text : "";
    }
    return std::make_unique<RtpSource>(plan.port, key);
}

int run(const Plan& plan) {
    const std::unique_ptr<Source> source = make_source(plan);
    launcher::VideoDecoder decoder;
    std::string error;
    if (!decoder.open(launcher::Codec::H264, error)) throw std::runtime_error(error);

    // /dev/stderr would be the sender's own, which is closed when it is opened.
    const std::string own_stderr = "/proc/" + std::to_string(::getpid()) + "/fd/2";
    test::ChildProcess sender({.argv = plan.command, .environment = {}, .stderr_path = own_stderr});
    source->start();
    std::optional<Measurement> measurement;
    std::optional<SteadyClock::time_point> first_picture;
    const auto deadline = SteadyClock::now() + std::chrono::seconds(20) +
                          std::chrono::duration_cast<SteadyClock::duration>(
                              std::chrono::duration<double>(plan.warm_up_s + plan.window_s));
    while (!measurement || measurement->seconds() < plan.window_s) {
        if (!sender.running() || SteadyClock::now() > deadline) {
            std::fprintf(stderr, "pipeline_probe: no stream from %s\n", plan.command[0].c_str());
            return 1;
        }
        source->receive([&](const launcher::AssembledFrame& frame) {
            if (measurement) measurement->add_frame(frame);
            decoder.decode(frame, [&](const launcher::DecodedPicture& picture) {
                const auto now = SteadyClock::now();
                if (!first_picture) first_picture = now;
                if (measurement) measurement->add(picture);
                if (!measurement &&
                    std::chrono::duration<double>(now - *first_picture).count() >= plan.warm_up_s) {
                    measurement.emplace(sender);
                }
            });
        });
    }
    if (measurement->frames() == 0) {
        std::fprintf(stderr, "pipeline_probe: the stream stopped\n");
        return 1;
    }
    measurement->print(*source);
    sender.signal(SIGINT);
    if (!sender.wait(std::chrono::seconds(5))) sender.signal(SIGKILL);
    return 0;
}

}  // namespace
}  // namespace ox::bench

int main(int argc, char** argv) {
    if (argc < 9) {
        std::fprintf(stderr,
                     "usage: %s agent|rtp|srtp PORT WxH FPS KBPS WARM-UP-S WINDOW-S COMMAND...\n",
                     argv[0]);
        return 2;
    }
    ox::bench::Plan plan;
    plan.kind = argv[1];
    plan.port = static_cast<uint16_t>(std::atoi(argv[2]));
    if (std::sscanf(argv[3], "%dx%d", &plan.width, &plan.height) != 2) return 2;
    plan.fps = std::atoi(argv[4]);
    plan.kbps = std::atoi(argv[5]);
    plan.warm_up_s = std::atof(argv[6]);
    plan.window_s = std::atof(argv[7]);
    plan.command.assign(argv + 8, argv + argc);
    try {
        return ox::bench::run(plan);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pipeline_probe: %s\n", error.what());
        return 1;
    }
}
