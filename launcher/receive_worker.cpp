#include "launcher/receive_worker.h"

#include <utility>

#include "base/clock.h"

namespace ox::launcher {

namespace {

constexpr std::chrono::milliseconds kPollPeriod{5};

}  // namespace

ReceiveWorker::ReceiveWorker(MediaSocket& socket, FrameQueue& queue,
                             std::span<const uint8_t, PacketOpener::kKeyBytes> key,
                             const VideoReceiver::Config& config, RequestSink request_keyframe)
    : socket_(socket),
      queue_(queue),
      receiver_(key, config),
      request_keyframe_(std::move(request_keyframe)) {}

void ReceiveWorker::start() {
    thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

void ReceiveWorker::stop() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
}

ReceiveSnapshot ReceiveWorker::snapshot() const {
    const std::lock_guard lock(mutex_);
    return snapshot_;
}

void ReceiveWorker::run(const std::stop_token& stop) {
    bool broken = false;
    while (!stop.stop_requested() && !broken) {
        if (probes_.due(steady_now_us(), receiver_.stats().last_media_us)) socket_.send_probe();
        broken = !socket_.receive(kPollPeriod, [this](std::span<const uint8_t> datagram) {
            receiver_.on_datagram(datagram, steady_now_us());
            hand_out_frames();
        });
        const uint64_t now = steady_now_us();
        receiver_.on_time(now);
        hand_out_frames();
        if (const auto request = receiver_.take_keyframe_request(now)) request_keyframe_(*request);

        const std::lock_guard lock(mutex_);
        snapshot_ = {.stream = receiver_.stats(),
                     .kernel_drops = socket_.kernel_drops(),
                     .queue_drops = queue_drops_,
                     .broken = broken};
    }
}

void ReceiveWorker::hand_out_frames() {
    while (auto frame = receiver_.next_frame()) {
        if (queue_.push(std::move(*frame))) continue;
        ++queue_drops_;
        receiver_.on_frame_dropped();
    }
}

}  // namespace ox::launcher
