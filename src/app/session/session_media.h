#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "app/options.h"
#include "audio/audio_stream.h"
#include "transport/encryption.h"
#include "transport/packet.h"
#include "transport/packetizer.h"
#include "transport/udp_sender.h"

// The media streams of one session. Used by the session's thread.

namespace ox {

struct MediaPorts {
    uint16_t local = 0;
    uint16_t launcher = 0;  ///< destination until a probe says otherwise
};

/// The UDP socket of one media stream, on ports that stay the same for the whole session.
class MediaSocket {
  public:
    explicit MediaSocket(MediaPorts ports) : ports_(ports) {}

    /// Binds the local port before the launcher can send a probe to it. `open` reports a failure.
    void reserve() { sender_.reserve(ports_.local); }
    /// Binds (unless reserved), reports the port to the board and listens for the launcher's probe.
    bool open(const std::string& launcher);
    /// Before a returned launcher gets its keys: accepts one more probe, from either address.
    void expect_return(const std::string& peer_ip, const std::string& media_ip) {
        sender_.expect_return(peer_ip, media_ip, ports_.launcher);
    }
    void close() { sender_.close(); }

    UdpSender& sender() { return sender_; }
    [[nodiscard]] const UdpSender& sender() const { return sender_; }

  private:
    MediaPorts ports_;
    UdpSender sender_;
};

/// Sends encoded pictures: packets, encryption, paced send.
class SessionVideo : public MediaSocket {
  public:
    explicit SessionVideo(MediaPorts ports);

    /// Sets a new stream key. False when it is not 32 bytes long.
    bool set_key(std::span<const uint8_t> key);
    /// Sends one picture. A packet that cannot be encrypted is skipped.
    void send(const EncodedFrame& frame);

  private:
    Encryption encryption_;
    Packetizer packetizer_;
    std::vector<OutgoingPacket> packets_;  ///< reused, so that a frame allocates nothing
};

/// The sound; without --audio, or after a failure, the session goes on without it.
class SessionAudio {
  public:
    static constexpr int kSampleRate = 48000;
    static constexpr int kChannels = 2;
    static constexpr int kBitrateBps = 128000;

    /// `cancelled`, asked by any thread, ends a wait for the sound server.
    SessionAudio(const Options& options, MediaPorts ports, PacketNumbers& numbers,
                 std::function<bool()> cancelled)
        : options_(options), socket_(ports) {
        stream_.set_numbers(numbers);
        stream_.set_cancelled(std::move(cancelled));
    }

    void reserve() {
        if (options_.audio) socket_.reserve();
    }
    /// `MediaSocket::open`. Logs whether parity is on or ignored.
    void open(const std::string& launcher);
    void start(std::span<const uint8_t> key);

    void pause() { stream_.stop(); }
    void expect_return(const std::string& peer_ip, const std::string& media_ip) {
        socket_.expect_return(peer_ip, media_ip);
    }
    void resume(std::span<const uint8_t> key);
    void close();

  private:
    bool start_stream(std::span<const uint8_t> key);

    const Options& options_;
    MediaSocket socket_;
    AudioStream stream_;
};

}  // namespace ox
