#include "launcher/fake_agent.h"

#include <sodium.h>

#include <algorithm>
#include <array>

#include "base/clock.h"
#include "base/sleep.h"
#include "control/tcp_control_server.h"
#include "launcher/stamped_encoder.h"
#include "transport/encryption.h"
#include "transport/packetizer.h"
#include "transport/udp_sender.h"

namespace ox::test {

namespace {

std::string sha256_hex(const std::string& text) {
    std::array<uint8_t, crypto_hash_sha256_BYTES> digest{};
    crypto_hash_sha256(digest.data(), reinterpret_cast<const uint8_t*>(text.data()), text.size());
    std::array<char, 2 * crypto_hash_sha256_BYTES + 1> hex{};
    sodium_bin2hex(hex.data(), hex.size(), digest.data(), digest.size());
    return hex.data();
}

// A NAL unit of filler, which decoders pass over, so that small pictures fill several packets.
void append_filler(std::vector<uint8_t>& unit, size_t bytes) {
    unit.insert(unit.end(), {0, 0, 0, 1, 0x0C});
    unit.insert(unit.end(), bytes, 0xFF);
    unit.push_back(0x80);
}

}  // namespace

FakeAgent::FakeAgent(uint16_t port_base, Script script)
    : port_base_(port_base), script_(std::move(script)), thread_([this] { run(); }) {}

FakeAgent::~FakeAgent() {
    give_up_ = true;
}

FakeAgent::Heard FakeAgent::wait() {
    thread_.join();
    return heard_;
}

void FakeAgent::run() {
    TcpControlServer control;
    control.expected_token_sha256 = sha256_hex(script_.token);
    std::atomic<bool> keyframe_wanted{false};
    std::atomic<bool> ended{false};
    control.message_callback = [&](const std::string& type) {
        if (type == "request_idr") keyframe_wanted = true;
        if (type == "end_session") ended = true;
        const std::lock_guard lock(mutex_);
        heard_.messages.push_back(type);
    };
    control.stats_callback = [&](const ClientStats& stats) {
        const std::lock_guard lock(mutex_);
        heard_.stats.push_back(stats);
    };
    control.settings_callback = [&](const SettingsChange& settings) {
        const std::lock_guard lock(mutex_);
        heard_.settings = settings;
    };
    const auto gone = [&] { return give_up_.load() || ended.load(); };
    if (!control.accept_and_handshake(static_cast<uint16_t>(port_base_ + 3), gone, 20)) return;
    {
        const std::lock_guard lock(mutex_);
        heard_.authenticated = true;
        heard_.width = control.requested.width;
    }
    control.start_async_read();

    // Aims at a port that nobody listens on: only the probe can show the way to the launcher.
    UdpSender sender;
    if (!sender.open(control.remote_address(), 9, static_cast<uint16_t>(port_base_ + 4))) return;
    sender.start_probe_listener();
    sender.wait_for_probe(5, gone);
    Encryption encryption;
    std::vector<uint8_t> key = control.keys.video_key;
    if (script_.wrong_key) key[0] ^= 1;
    encryption.set_key(key.data(), key.size());
    StampedEncoder encoder(launcher::Codec::H264);
    std::vector<OutgoingPacket> packets;
    auto next = SteadyClock::now();
    for (uint32_t n = 0; control.is_connected() && !gone(); ++n) {
        if (script_.end_after != 0 && n == script_.end_after) break;
        sleep_until_steady(next += std::chrono::microseconds(16'667));
        if (!script_.send_media) continue;
        EncodedFrame frame =
            encoder.encode(n, 1000 + n, steady_now_us(), n == 0 || keyframe_wanted.exchange(false));
        if (script_.garbage) std::ranges::fill(frame.data, uint8_t{0x42});
        append_filler(frame.data, 4000);
        packets.clear();
        Packetizer().packetize(frame, kStreamVideo, packets);
        for (OutgoingPacket& packet : packets) {
            size_t sealed = 0;
            encryption.encrypt_packet(packet.header, packet.payload.data(), packet.payload.size(),
                                      packet.payload.data(), sealed);
            packet.payload.resize(sealed);
            if (!script_.lose || !script_.lose(packet.header)) sender.send_packet(packet);
        }
    }
}

}  // namespace ox::test
