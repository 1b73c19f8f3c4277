#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/clock.h"
#include "e2e/agent.h"
#include "launcher/client/control_client.h"
#include "launcher/client/control_messages.h"
#include "launcher/client/media_socket.h"
#include "launcher/client/video_decoder.h"
#include "launcher/client/video_receiver.h"
#include "launcher/frame_stamp.h"
#include "support/tcp_client.h"

namespace ox::test {

/// A launcher under the test's control: authenticates, receives and decodes while `receive_until`
/// runs, and sends on the control channel only what the test asks for.
class Player {
  public:
    struct Setup {
        int width = 320;
        int height = 180;
        int fps = 60;
        int bitrate_kbps = 1500;
        bool probe = true;        ///< sends hole-punch probes
        uint32_t host = 1;        ///< connects from 127.0.0.`host`
        uint16_t media_port = 0;  ///< own, sound on the next; 0: the agent's port base
    };

    struct Frame {
        uint32_t frame_id = 0;
        bool keyframe = false;
        size_t bytes = 0;
    };

    /// Throws std::runtime_error when the agent refuses it.
    Player(const Agent& agent, const Setup& setup) : setup_(setup) {
        std::string error;
        const std::string ip = "127.0.0." + std::to_string(setup.host);
        const uint16_t port = setup.media_port == 0 ? agent.port_base() : setup.media_port;
        if (!media_.open(port, error, ip) || !decoder_.open(launcher::Codec::H264, error))
            throw std::runtime_error(error);
        const std::string auth = launcher::make_auth_line({.token = kToken,
                                                           .width = setup.width,
                                                           .height = setup.height,
                                                           .fps = setup.fps,
                                                           .bitrate_kbps = setup.bitrate_kbps,
                                                           .udp_ip = {}});
        control_.set_local_ip(ip);
        if (control_.connect("127.0.0.1", agent.control_port(), auth,
                             SteadyClock::now() + kPatience,
                             [] { return false; }) != launcher::ConnectResult::Ready) {
            throw std::runtime_error("refused: " + control_.error());
        }
        receiver_.emplace(std::span<const uint8_t, 32>(keys().video_key),
                          launcher::VideoReceiver::Config{});
        media_.set_agent("127.0.0.1", static_cast<uint16_t>(agent.port_base() + 4));
    }
    explicit Player(const Agent& agent) : Player(agent, Setup{}) {}

    /// Receives until `done` holds. False when `timeout` passes first.
    bool receive_until(const std::function<bool()>& done,
                       std::chrono::milliseconds timeout = kPatience) {
        const auto deadline = SteadyClock::now() + timeout;
        while (!done()) {
            if (SteadyClock::now() >= deadline) return false;
            if (setup_.probe && receiver_->stats().packets == 0) media_.send_probe();
            media_.receive(std::chrono::milliseconds(5), [&](std::span<const uint8_t> datagram) {
                if (on_datagram) on_datagram(datagram);
                receiver_->on_datagram(datagram, steady_now_us());
                take_frames();
            });
            receiver_->on_time(steady_now_us());
            take_frames();
            if (receiver_->take_keyframe_request(steady_now_us())) say("request_idr");
        }
        return true;
    }
    /// Receives `count` more frames. False on a timeout.
    bool receive_frames(size_t count) {
        const size_t wanted = frames_.size() + count;
        return receive_until([&] { return frames_.size() >= wanted; });
    }

    void say(const std::string& type, const std::string& more = "") {
        control_.send_line(R"({"type":")" + type + "\"" + more + "}");
    }
    launcher::ControlClient& control() { return control_; }
    /// Receives until the agent ends the session. False on a timeout.
    bool is_ended() {
        return receive_until([this] { return !control_.is_connected(); });
    }

    [[nodiscard]] const std::vector<Frame>& frames() const { return frames_; }
    [[nodiscard]] size_t keyframes_since(size_t first_frame) const {
        return static_cast<size_t>(
            std::count_if(frames_.begin() + static_cast<ptrdiff_t>(first_frame), frames_.end(),
                          [](const Frame& frame) { return frame.keyframe; }));
    }
    [[nodiscard]] size_t pictures() const { return pictures_; }
    [[nodiscard]] const launcher::StampChecker::Report& stamps() const { return stamps_.report(); }
    [[nodiscard]] const launcher::ReceiveStats& stats() const { return receiver_->stats(); }
    [[nodiscard]] const SessionKeySet& keys() const { return control_.keys(); }

    /// Called with each decoded picture.
    std::function<void(const launcher::DecodedPicture&)> on_picture;
    /// Called with each video datagram, still sealed.
    std::function<void(std::span<const uint8_t>)> on_datagram;

  private:
    void take_frames() {
        while (const auto frame = receiver_->next_frame()) {
            frames_.push_back({frame->frame_id, frame->keyframe, frame->data.size()});
            decoder_.decode(*frame, [&](const launcher::DecodedPicture& picture) {
                ++pictures_;
                stamps_.add(picture.frame_id, launcher::read_frame_stamp(picture.luma));
                if (on_picture) on_picture(picture);
            });
        }
    }

    Setup setup_;
    launcher::ControlClient control_;
    launcher::MediaSocket media_;
    std::optional<launcher::VideoReceiver> receiver_;
    launcher::VideoDecoder decoder_;
    launcher::StampChecker stamps_;
    std::vector<Frame> frames_;
    size_t pictures_ = 0;
};

}  // namespace ox::test
