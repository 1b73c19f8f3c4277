#include "launcher/decode_worker.h"

#include "base/clock.h"
#include "launcher/av_handles.h"
#include "launcher/picture_writer.h"

namespace ox::launcher {

namespace {

// A capture time further back than this, or in the future, is of another machine's clock.
constexpr uint64_t kMaxLatencyUs = 60'000'000;

}  // namespace

struct DecodeWorker::PictureHolder {
    AvPtr<AVFrame> picture;
};

DecodeWorker::DecodeWorker(FrameQueue& queue)
    : queue_(queue), last_picture_(std::make_unique<PictureHolder>()) {}
DecodeWorker::~DecodeWorker() {
    queue_.close();
    join();
}

bool DecodeWorker::open(const Config& config, std::string& error) {
    config_ = config;
    if (!decoder_.open(config.codec, error)) return false;
    return config.save_stream.empty() ||
           recorder_.open(config.save_stream, {.codec = config.codec, .sound = config.record_sound},
                          error);
}

void DecodeWorker::start() {
    thread_ = std::jthread([this] { run(); });
}

void DecodeWorker::join() {
    if (thread_.joinable()) thread_.join();
}

DecodeStats DecodeWorker::stats() const {
    const std::lock_guard lock(mutex_);
    DecodeStats stats = stats_;
    stats.audio_frames_recorded = recorder_.audio_frames();
    return stats;
}

void DecodeWorker::run() {
    while (const auto frame = queue_.pop()) {
        const bool decoded =
            decoder_.decode(*frame, [&](const DecodedPicture& p) { on_picture(p); });
        if (!config_.save_stream.empty()) recorder_.write(*frame);

        const std::lock_guard lock(mutex_);
        if (!decoded) ++stats_.decode_errors;
        stats_.frames_recorded = recorder_.frames();
        const uint64_t arrival = frame->completed - frame->timestamp;
        if (frame->timestamp != 0 && arrival < kMaxLatencyUs) stats_.arrival_latency.add(arrival);
    }
}

void DecodeWorker::on_picture(const DecodedPicture& picture) {
    const uint64_t now = steady_now_us();
    if (config_.check_stamps) stamps_.add(picture.frame_id, read_frame_stamp(picture.luma));
    if (config_.keep_last_picture) last_picture_->picture.reset(av_frame_clone(&picture.image));

    const std::lock_guard lock(mutex_);
    if (stats_.frames_decoded++ == 0) {
        stats_.first_frame_id = picture.frame_id;
        stats_.first_decoded_us = now;
    }
    stats_.last_frame_id = picture.frame_id;
    stats_.last_decoded_us = now;
    stats_.width = picture.width;
    stats_.height = picture.height;
    stats_.stamps = stamps_.report();
    const uint64_t latency = now - picture.timestamp;
    if (picture.timestamp != 0 && latency < kMaxLatencyUs)
        stats_.latency.add(latency);
    else
        ++stats_.without_latency;
}

bool DecodeWorker::finish_recording(std::string& error) {
    if (config_.save_stream.empty() || recorder_.finish()) return true;
    error = recorder_.error();
    return false;
}

bool DecodeWorker::save_last_picture(const std::string& path, std::string& error) const {
    if (last_picture_->picture) return write_png(*last_picture_->picture, path, error);
    error = "no picture to save";
    return false;
}

}  // namespace ox::launcher
