#include "launcher/client/video_workers.h"

#include <utility>

#include "base/clock.h"

namespace ox::launcher {

namespace {

constexpr std::chrono::milliseconds kPollPeriod{5};
// A capture time further back than this, or in the future, is of another machine's clock.
constexpr uint64_t kMaxLatencyUs = 60'000'000;

}  // namespace

bool FrameQueue::push(AssembledFrame&& frame) {
    {
        const MutexLock lock(mutex_);
        if (closed_ || frames_.size() >= capacity_) return false;
        frames_.push_back(std::move(frame));
    }
    changed_.notify_one();
    return true;
}

std::optional<AssembledFrame> FrameQueue::pop() {
    MutexLock lock(mutex_);
    while (!closed_ && frames_.empty())
        lock.wait(changed_);
    if (frames_.empty()) return std::nullopt;
    AssembledFrame frame = std::move(frames_.front());
    frames_.pop_front();
    return frame;
}

void FrameQueue::close() {
    {
        const MutexLock lock(mutex_);
        closed_ = true;
    }
    changed_.notify_all();
}

ReceiveWorker::ReceiveWorker(MediaSocket& socket, FrameQueue& queue,
                             std::span<const uint8_t, PacketOpener::kKeyBytes> key,
                             const VideoReceiver::Config& config, RequestSink request_keyframe,
                             PacketObserver observe)
    : socket_(socket),
      queue_(queue),
      receiver_(key, config),
      request_keyframe_(std::move(request_keyframe)),
      observe_(std::move(observe)) {
    if (observe_) socket_.enable_arrival_times();
}

void ReceiveWorker::start() {
    thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

void ReceiveWorker::stop() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
}

ReceiveSnapshot ReceiveWorker::snapshot() const {
    const MutexLock lock(mutex_);
    return snapshot_;
}

void ReceiveWorker::run(const std::stop_token& stop) {
    bool broken = false;
    while (!stop.stop_requested() && !broken) {
        if (probes_.due(steady_now_us(), receiver_.stats().last_media_us)) socket_.send_probe();
        broken = !socket_.receive(
            kPollPeriod, [this](std::span<const uint8_t> datagram) { on_datagram(datagram); });
        const uint64_t now = steady_now_us();
        receiver_.on_time(now);
        queue_frames();
        if (const auto request = receiver_.take_keyframe_request(now)) request_keyframe_(*request);

        const MutexLock lock(mutex_);
        snapshot_ = {.stream = receiver_.stats(),
                     .kernel_drops = socket_.kernel_drops(),
                     .queue_drops = queue_drops_,
                     .broken = broken};
    }
}

void ReceiveWorker::on_datagram(std::span<const uint8_t> datagram) {
    const uint64_t now = steady_now_us();
    const auto header = receiver_.on_datagram(datagram, now);
    if (observe_ && header) observe_(*header, datagram.size(), now - socket_.waited_us());
    queue_frames();
}

void ReceiveWorker::queue_frames() {
    while (auto frame = receiver_.next_frame()) {
        if (queue_.push(std::move(*frame))) continue;
        ++queue_drops_;
        receiver_.on_frame_dropped();
    }
}

DecodeWorker::DecodeWorker(FrameQueue& queue, Sinks sinks)
    : queue_(queue), sinks_(std::move(sinks)) {}

DecodeWorker::~DecodeWorker() {
    queue_.close();
    join();
}

void DecodeWorker::start() {
    thread_ = std::jthread([this] { run(); });
}

void DecodeWorker::join() {
    if (thread_.joinable()) thread_.join();
}

DecodeStats DecodeWorker::stats() const {
    const MutexLock lock(mutex_);
    return stats_;
}

void DecodeWorker::run() {
    if (sinks_.begin) sinks_.begin();
    while (const auto frame = queue_.pop()) {
        const uint64_t begun = steady_now_us();
        const bool decoded =
            decoder_.decode(*frame, [&](const DecodedPicture& p) { on_picture(p); });
        const uint64_t took = steady_now_us() - begun;
        if (sinks_.frame) sinks_.frame(*frame);

        const MutexLock lock(mutex_);
        if (!decoded) ++stats_.decode_errors;
        stats_.decoding_us += took;
        stats_.decoder = decoder_.kind();
        const uint64_t arrival = frame->completed - frame->timestamp;
        if (frame->timestamp != 0 && arrival < kMaxLatencyUs) stats_.arrival_latency.add(arrival);
    }
    if (sinks_.end) sinks_.end();
}

void DecodeWorker::on_picture(const DecodedPicture& picture) {
    const uint64_t now = steady_now_us();
    if (sinks_.picture) sinks_.picture(picture);

    const MutexLock lock(mutex_);
    if (stats_.frames_decoded++ == 0) {
        stats_.first_frame_id = picture.frame_id;
        stats_.first_decoded_us = now;
    }
    stats_.last_frame_id = picture.frame_id;
    stats_.last_decoded_us = now;
    stats_.width = picture.width;
    stats_.height = picture.height;
    const uint64_t latency = now - picture.timestamp;
    if (picture.timestamp != 0 && latency < kMaxLatencyUs) stats_.latency.add(latency);
}

}  // namespace ox::launcher
