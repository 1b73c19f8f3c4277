#include "app/session/session_audio.h"

#include "app/board_reports.h"
#include "log/log.h"

namespace ox {

void SessionAudio::reserve(uint16_t local_port) {
    if (options_.audio) sender_.reserve(local_port);
}

void SessionAudio::open(const std::string& launcher, uint16_t dest_port, uint16_t local_port) {
    if (options_.audio) {
        const bool opened = sender_.open(launcher, dest_port, local_port);
        report_bound_port(local_port, sender_.bind_error());
        if (opened) {
            sender_.start_probe_listener();
        } else {
            OX_WARN("Session: audio sender open failed — continuing video-only");
        }
    }
    if (options_.audio_parity && !options_.audio) {
        OX_WARN("Session: --audio-parity ignored without --audio");
    } else if (options_.audio_parity) {
        OX_INFO(
            "Session: P6 audio parity enabled (4 data + 2 repairs per block; launcher needs "
            "--audio-parity too)");
    }
    stream_.set_parity_enabled(options_.audio && options_.audio_parity);
}

bool SessionAudio::start_stream(std::span<const uint8_t> key) {
    return stream_.start(sender_, key.data(), key.size(), kSampleRate, kChannels, kBitrateBps);
}

void SessionAudio::start(std::span<const uint8_t> key) {
    if (!options_.audio || !sender_.is_open()) return;
    if (key.size() != Encryption::kKeyBytes) {
        OX_WARN("Session: audio key missing or %zu bytes (want %zu) — audio disabled", key.size(),
                Encryption::kKeyBytes);
        return;
    }
    if (!start_stream(key)) {
        OX_WARN("Session: audio pipeline failed to start — continuing video-only");
    }
}

void SessionAudio::resume(std::span<const uint8_t> key) {
    if (!options_.audio || !sender_.is_open() || key.size() != Encryption::kKeyBytes) return;
    start_stream(key);
}

void SessionAudio::close() {
    stream_.stop();
    sender_.close();
}

}  // namespace ox
