#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>

#include "app/options.h"
#include "audio/audio_stream.h"
#include "transport/udp_sender.h"

namespace ox {

/// The sound of a session: its sender and its stream. Whatever fails here costs the sound and never
/// the session. Used by the main thread.
class SessionAudio {
  public:
    static constexpr int kSampleRate = 48000;
    static constexpr int kChannels = 2;
    static constexpr int kBitrateBps = 128000;

    /// `cancelled`, asked by any thread, ends a wait for the sound server.
    SessionAudio(const Options& options, std::function<bool()> cancelled) : options_(options) {
        stream_.set_cancelled(std::move(cancelled));
    }

    /// With sound asked for: keeps the sender's port for the `open` that follows.
    void reserve(uint16_t local_port);
    /// With sound asked for: binds the sender. Says what parity is on or ignored.
    void open(const std::string& launcher, uint16_t dest_port, uint16_t local_port);
    /// Where the stream's sequence numbers come from. Before `start`.
    void set_numbers(PacketNumbers& numbers) { stream_.set_numbers(numbers); }
    /// Starts the stream when the sender is open. Says why when it cannot.
    void start(std::span<const uint8_t> key);
    /// Ends the stream for as long as there is no launcher.
    void pause() { stream_.stop(); }
    /// `UdpSender::expect_return` of the sender.
    void expect_return(const std::string& peer_ip, const std::string& media_ip,
                       uint16_t dest_port) {
        sender_.expect_return(peer_ip, media_ip, dest_port);
    }
    /// After `pause`: the stream goes on under `key`.
    void resume(std::span<const uint8_t> key);
    /// Ends the stream, then the sender.
    void close();

  private:
    bool start_stream(std::span<const uint8_t> key);

    const Options& options_;
    UdpSender sender_;
    AudioStream stream_;
};

}  // namespace ox
