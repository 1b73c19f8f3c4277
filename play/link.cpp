#include "play/link.h"

#include <algorithm>
#include <utility>

#include "base/sleep.h"
#include "base/thread.h"
#include "launcher/client/feedback_packets.h"

namespace ox::play {

namespace {

using launcher::ConnectResult;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kTick{20};
constexpr seconds kReportPeriod{1};
constexpr milliseconds kRequestPeriod{250};
constexpr seconds kConnectTime{10};
constexpr seconds kFirstPictureTime{10};
/// The agent holds a session for 60 s from when it learns of the loss: at once when the connection
/// was cut, after 30 s when the network went silent.
constexpr seconds kHoldTime{60};
constexpr seconds kSilentHoldTime{90};
constexpr uint64_t kSilentUs = 1'000'000;  // a still screen is sent, too
constexpr uint64_t kDeadUs = 5'000'000;
constexpr int32_t kFirstBitrateKbps = 10'000;
constexpr milliseconds kBitratePeriod{100};
/// Packets may overtake each other by this much. After a real loss nothing fit comes for longer.
constexpr launcher::FrameAssembler::Limits kAssembly{.reorder_frames = 4, .reorder_us = 40'000};
/// A keyframe is usually there by then. Where it is not, a smeared picture is better than none.
constexpr uint64_t kHideDamagedUs = 200'000;
constexpr size_t kQueuedFrames = 15;

uint64_t since_us(uint64_t time_us) {
    const uint64_t now = steady_now_us();
    return now > time_us ? now - time_us : 0;
}

/// Above this a picture only costs both processors more.
BitrateController::Limits bitrate_limits(const Options& options) {
    constexpr double kAmpleBitsPerPixel = 0.4;
    const double pixels = 1.0 * options.width * options.height * options.fps;
    const double ample_kbps = std::clamp(kAmpleBitsPerPixel * pixels / 1000, 20e3, 50e3);
    return {.least_kbps = 500, .most_kbps = static_cast<uint32_t>(ample_kbps)};
}

}  // namespace

Link::Link(const Options& options, PictureSlot& pictures, Sinks sinks)
    : options_(options),
      pictures_(pictures),
      sinks_(std::move(sinks)),
      queue_(kQueuedFrames),
      decode_(queue_, decode_sinks()),
      bitrate_kbps_(options.bitrate_kbps > 0 ? options.bitrate_kbps : kFirstBitrateKbps) {
    if (options.bitrate_kbps == 0) controller_.emplace(kFirstBitrateKbps, bitrate_limits(options));
}

// The threads between the network and the picture go first where a game or a browser has the cores.
launcher::DecodeWorker::Sinks Link::decode_sinks() {
    return {.picture = [this](const launcher::DecodedPicture& picture) { on_picture(picture); },
            .frame =
                [this](const launcher::AssembledFrame& frame) {
                    const MutexLock lock(mutex_);
                    status_.clock.add(frame.timestamp, frame.completed);
                },
            .begin = [this] { raised_.emplace("Play"); },
            .end = [this] { raised_.reset(); }};
}

void Link::on_picture(const launcher::DecodedPicture& picture) {
    if (is_fit(picture) && pictures_.put(picture)) sinks_.wake();
    if (raise_due_.exchange(false)) raised_->raise_since(other_threads_);
}

bool Link::is_fit(const launcher::DecodedPicture& picture) {
    if (!picture.damaged) {
        damaged_since_us_ = 0;
    } else if (damaged_since_us_ == 0) {
        damaged_since_us_ = steady_now_us();
    }
    return !picture.damaged || since_us(damaged_since_us_) > kHideDamagedUs;
}

void Link::start() {
    thread_ = start_thread([this] { run(); },
                           [this](const char* reason) { end(ExitStatus::Failed, reason); });
}

void Link::stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
    queue_.close();
    decode_.join();  // its thread uses what is destroyed before it
}

LinkStatus Link::status() const {
    const MutexLock lock(mutex_);
    return status_;
}

void Link::set_state(LinkState state, SteadyClock::time_point deadline) {
    {
        const MutexLock lock(mutex_);
        if (status_.state == state) return;
        status_.state = state;
        status_.deadline = deadline;
    }
    sinks_.wake();
}

void Link::end(ExitStatus exit, std::string error, bool ended_by_host) {
    {
        const MutexLock lock(mutex_);
        status_.exit = exit;
        status_.error = std::move(error);
        status_.ended_by_host = ended_by_host;
    }
    set_state(LinkState::Ended);
}

void Link::run() {
    if (!prepare()) return;
    auto result = connect(SteadyClock::now() + kConnectTime);
    while (result == ConnectResult::Ready) {
        const Outcome outcome = start_media() ? stream() : Outcome::Failed;
        const bool lost = outcome == Outcome::Broken || outcome == Outcome::Silent;
        if (!lost) control_.send_line(launcher::kEndSessionLine);
        stop_media();
        control_.close();
        if (outcome == Outcome::Stopped) end(ExitStatus::Ok);
        if (outcome == Outcome::HostEnded)
            end(ExitStatus::HostEnded, "the PC ended the session", true);
        if (!lost || !reconnect(outcome)) return;
    }
    switch (result) {
        case ConnectResult::Ready:
            return;
        case ConnectResult::Stopped:
            return end(ExitStatus::Ok);
        case ConnectResult::UnknownHost:
            return end(ExitStatus::UnknownHost, control_.error());
        case ConnectResult::Refused:
            return end(ExitStatus::Unreachable,
                       control_.error() + " (is the PC on, and orvex-agent running?)");
        case ConnectResult::Rejected:
            return end(ExitStatus::Rejected, "the PC refuses this session token");
        case ConnectResult::NoAnswer:
            return end(ExitStatus::TimedOut, control_.error());
        case ConnectResult::BadAnswer:
            return end(ExitStatus::BadAnswer,
                       "what answers is no orvex-agent: " + control_.error());
    }
}

bool Link::prepare() {
    using Hardware = launcher::VideoDecoder::Hardware;
    std::string error;
    if (!video_socket_.open(0, error) || (sinks_.sound && !audio_socket_.open(0, error))) {
        end(ExitStatus::Failed, error);
        return false;
    }
    other_threads_ = threads_of_process();
    if (!decode_.open(options_.codec, error, Hardware::WhereThere)) {
        end(ExitStatus::Undecodable, error);
        return false;
    }
    decode_.start();
    return true;
}

ConnectResult Link::connect(SteadyClock::time_point deadline) {
    const std::string auth = launcher::make_auth_line({.token = options_.token,
                                                       .codec = options_.codec,
                                                       .width = options_.width,
                                                       .height = options_.height,
                                                       .fps = options_.fps,
                                                       .bitrate_kbps = bitrate_kbps_,
                                                       .udp_ip = {}});
    // The name was resolved once: its server may be behind what is lost.
    const std::string host = control_.agent_ip().empty() ? options_.host : control_.agent_ip();
    return control_.connect(host, static_cast<uint16_t>(options_.port_base + 3), auth, deadline,
                            [this] { return stopping(); });
}

bool Link::start_media() {
    const SessionKeySet& keys = control_.keys();
    const std::string& agent = control_.agent_ip();
    const auto port = [&](int offset) {
        return static_cast<uint16_t>(options_.port_base + offset);
    };
    std::string error;
    if (!input_.open(agent, port(2),
                     std::span(keys.input_key).first<launcher::InputSealer::kKeyBytes>(), error)) {
        end(ExitStatus::Failed, error);
        return false;
    }
    video_socket_.set_agent(agent, port(4));
    using launcher::PacketOpener;
    receive_.emplace(
        video_socket_, queue_, std::span(keys.video_key).first<PacketOpener::kKeyBytes>(),
        launcher::VideoReceiver::Config{.limits = kAssembly, .decode_damaged = true},
        [this](const launcher::KeyframeRequest& request) { request_keyframe(request); },
        [this](const PacketHeader& header, size_t bytes, uint64_t arrival_us) {
            path_.on_packet(header, bytes, arrival_us);
        });
    receive_->start();
    if (sinks_.sound) {
        audio_socket_.set_agent(agent, port(5));
        audio_.emplace(audio_socket_, std::span(keys.audio_key).first<PacketOpener::kKeyBytes>(),
                       launcher::AudioWorker::Sinks{.frame = {}, .samples = sinks_.sound});
        if (!audio_->start(error)) audio_.reset();
    }
    meter_ = {};
    raise_due_ = true;
    return true;
}

void Link::stop_media() {
    if (audio_) audio_->stop();
    if (!receive_) return;
    receive_->stop();
    frames_lost_ += receive_->snapshot().stream.assembly.frames_lost;
}

// The input port is faster, but an agent without input has it closed.
void Link::request_keyframe(const launcher::KeyframeRequest& request) {
    input_.send(request.lost ? launcher::make_lost_frames_request(*request.lost)
                             : launcher::make_keyframe_request());
    control_.send_line(launcher::kRequestIdrLine);
}

Link::Outcome Link::stream() {
    set_state(LinkState::Starting);
    auto next_tick = SteadyClock::now();
    first_picture_deadline_ = next_tick + kFirstPictureTime;
    frames_before_ = decode_.stats().frames_decoded;
    auto next_report = next_tick;
    auto next_sample = next_tick;
    for (;;) {
        const launcher::ReceiveSnapshot receive = receive_->snapshot();
        if (const auto outcome = check(receive)) return *outcome;
        if (next_tick >= next_report) {
            next_report += kReportPeriod;
            report(receive);
        }
        if (next_tick >= next_sample) {
            next_sample += kBitratePeriod;
            adapt_bitrate();
        }
        next_tick += kTick;
        sleep_until_steady(next_tick);
    }
}

/// Whether, and why, streaming is over.
std::optional<Link::Outcome> Link::check(const launcher::ReceiveSnapshot& receive) {
    if (stopping()) return Outcome::Stopped;
    if (!control_.is_connected())
        return control_.ended_by_agent() ? Outcome::HostEnded : Outcome::Broken;
    const launcher::ReceiveStats& stream = receive.stream;
    const launcher::DecodeStats decoded = decode_.stats();
    if (receive.broken) {
        end(ExitStatus::Failed, "the network socket failed");
        return Outcome::Failed;
    }
    const bool silent = stream.last_media_us != 0 && since_us(stream.last_media_us) > kSilentUs;
    if (since_us(std::max(stream.last_media_us, control_.last_heard_us())) > kDeadUs)
        return Outcome::Silent;
    if (decoded.frames_decoded > frames_before_) {
        set_state(silent ? LinkState::Silent : LinkState::Playing);
    } else if (SteadyClock::now() > first_picture_deadline_) {
        if (frames_before_ == 0) {
            fail_without_picture(stream);
            return Outcome::Failed;
        }
        set_state(LinkState::Silent);
    }
    if (decoded.decode_errors > decode_errors_ && SteadyClock::now() >= next_request_) {
        decode_errors_ = decoded.decode_errors;
        next_request_ = SteadyClock::now() + kRequestPeriod;
        request_keyframe({});
    }
    return std::nullopt;
}

void Link::fail_without_picture(const launcher::ReceiveStats& stream) {
    if (stream.assembly.frames_complete > 0)
        end(ExitStatus::Undecodable, "the pictures cannot be decoded here (--codec h264?)");
    else if (stream.undecryptable > 0)
        end(ExitStatus::TimedOut, "pictures come, but the session's key does not open them");
    else
        end(ExitStatus::TimedOut, "no picture came: does a firewall block UDP?");
}

void Link::report(const launcher::ReceiveSnapshot& receive) {
    const launcher::DecodeStats decoded = decode_.stats();
    auto progress = meter_.update(receive, decoded, control_.rtt_ms(), steady_now_us());
    progress.frames_lost += frames_lost_;
    control_.send_ping();
    control_.send_line(launcher::make_stats_line({.rtt_ms = progress.rtt_ms,
                                                  .packet_loss_pct = progress.loss_pct,
                                                  .decoded_fps = progress.fps,
                                                  .jitter_ms = receive.stream.jitter_ms}));
    input_.send(
        launcher::make_media_feedback({.loss_pct = progress.loss_pct,
                                       .rtt_ms = progress.rtt_ms,
                                       .decoded_fps = progress.fps,
                                       .keyframe_wanted = receive.stream.awaiting_keyframe}));
    const uint64_t frames = decoded.frames_decoded - frames_decoded_;
    const uint64_t spent_us = decoded.decoding_us - decoding_us_;
    frames_decoded_ = decoded.frames_decoded;
    decoding_us_ = decoded.decoding_us;
    if (frames > 0) decode_ms_ = static_cast<double>(spent_us) / 1e3 / static_cast<double>(frames);
    {
        const MutexLock lock(mutex_);
        status_.progress = progress;
        status_.frames_decoded = decoded.frames_decoded;
        status_.decoder = decoded.decoder;
        status_.bitrate_kbps = bitrate_kbps_;
        status_.decode_ms = decode_ms_;
    }
    sinks_.wake();
}

void Link::adapt_bitrate() {
    if (!controller_) return;
    const auto kbps = controller_->update(path_.take_sample(steady_now_us(), decode_ms_));
    if (!kbps) return;
    bitrate_kbps_ = static_cast<int32_t>(*kbps);
    control_.send_line(launcher::make_set_bitrate_line(bitrate_kbps_));
}

bool Link::reconnect(Outcome why) {
    const auto deadline =
        SteadyClock::now() + (why == Outcome::Silent ? kSilentHoldTime : kHoldTime);
    set_state(LinkState::Lost, deadline);
    switch (connect(deadline)) {
        case ConnectResult::Ready:
            return true;
        case ConnectResult::Stopped:
            end(ExitStatus::Ok);
            return false;
        default:
            end(ExitStatus::HostEnded, "the connection to the PC was lost: " + control_.error());
            return false;
    }
}

}  // namespace ox::play
