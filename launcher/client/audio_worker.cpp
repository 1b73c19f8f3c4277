#include "launcher/client/audio_worker.h"

#include <utility>

#include "base/clock.h"

namespace ox::launcher {

namespace {

constexpr std::chrono::milliseconds kPollPeriod{5};

}  // namespace

AudioWorker::AudioWorker(MediaSocket& socket, std::span<const uint8_t, PacketOpener::kKeyBytes> key,
                         Sinks sinks)
    : socket_(socket), receiver_(key), sinks_(std::move(sinks)) {}

bool AudioWorker::start(std::string& error) {
    if (!decoder_.open(error)) return false;
    thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
    return true;
}

void AudioWorker::stop() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
}

AudioSnapshot AudioWorker::snapshot() const {
    const MutexLock lock(mutex_);
    return snapshot_;
}

void AudioWorker::run(const std::stop_token& stop) {
    bool broken = false;
    while (!stop.stop_requested() && !broken) {
        if (probes_.due(steady_now_us(), receiver_.stats().last_media_us)) socket_.send_probe();
        broken = !socket_.receive(kPollPeriod, [this](std::span<const uint8_t> datagram) {
            receiver_.on_datagram(datagram, steady_now_us());
            decode_frames();
        });
        receiver_.on_time(steady_now_us());
        decode_frames();
        publish_snapshot();
    }
}

void AudioWorker::decode_frames() {
    while (const auto frame = receiver_.next_frame()) {
        const auto pcm = decoder_.decode(*frame);
        samples_ += pcm.size();
        if (sinks_.samples) sinks_.samples(pcm, *frame);
        if (sinks_.frame) sinks_.frame(*frame);
    }
}

void AudioWorker::publish_snapshot() {
    constexpr double kSamplesPerSecond = AudioDecoder::kSampleRate * AudioDecoder::kChannels;
    const MutexLock lock(mutex_);
    snapshot_ = {.stream = receiver_.stats(),
                 .kernel_drops = socket_.kernel_drops(),
                 .frames_decoded = decoder_.frames(),
                 .frames_concealed = decoder_.concealed(),
                 .decode_errors = decoder_.errors(),
                 .seconds = static_cast<double>(samples_) / kSamplesPerSecond};
}

}  // namespace ox::launcher
