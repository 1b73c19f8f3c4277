#include "app/session/session_media.h"

#include "app/board_reports.h"
#include "log/log.h"

namespace ox {

bool MediaSocket::open(const std::string& launcher) {
    const bool opened = sender_.open(launcher, ports_.launcher, ports_.local);
    report_bound_port(ports_.local, sender_.bind_error());
    if (opened) sender_.start_probe_listener();
    return opened;
}

SessionVideo::SessionVideo(MediaPorts ports) : MediaSocket(ports) {
    // Parity for keyframes only: repair for every picture would add a packet to each small one, and
    // a keyframe repairs a lost one.
    packetizer_.set_repair_ratio(0.0F);
}

bool SessionVideo::set_key(std::span<const uint8_t> key) {
    return !key.empty() && encryption_.set_key(key.data(), key.size());
}

void SessionVideo::send(const EncodedFrame& frame) {
    packets_.clear();
    packetizer_.packetize(frame, kStreamVideo, packets_);
    for (OutgoingPacket& packet : packets_) {
        if (encryption_.seal(packet)) sender().send_packet(packet);
    }
}

void SessionAudio::open(const std::string& launcher) {
    if (options_.audio && !socket_.open(launcher)) {
        OX_WARN("Session: audio sender open failed — continuing video-only");
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
    return stream_.start(socket_.sender(), key.data(), key.size(), kSampleRate, kChannels,
                         kBitrateBps);
}

void SessionAudio::start(std::span<const uint8_t> key) {
    if (!options_.audio || !socket_.sender().is_open()) return;
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
    if (!options_.audio || !socket_.sender().is_open() || key.size() != Encryption::kKeyBytes) {
        return;
    }
    start_stream(key);
}

void SessionAudio::close() {
    stream_.stop();
    socket_.close();
}

}  // namespace ox
