#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "e2e/agent.h"
#include "launcher/control_client.h"
#include "launcher/media_socket.h"
#include "launcher/video_decoder.h"
#include "launcher/video_receiver.h"
#include "support/tcp_client.h"

namespace ox::test {

/// A launcher in the test's own hands: authenticates, receives and decodes, and says on the control
/// channel just what the test tells it to say. Works only while `receive_until` runs.
class Player {
  public:
    struct Setup {
        int width = 320;
        int height = 180;
        int fps = 60;
        int bitrate_kbps = 1500;
        bool probe = true;        ///< punches the hole, so that the agent need not wait for it
        uint32_t host = 1;        ///< comes from 127.0.0.`host`
        uint16_t media_port = 0;  ///< own, sound on the next; 0: the agent's port base
    };

    /// One access unit in the order of arrival.
    struct Frame {
        uint32_t frame_id = 0;
        bool keyframe = false;
        size_t bytes = 0;
    };

    /// Throws std::runtime_error when the agent does not let it in.
    Player(const Agent& agent, const Setup& setup);
    explicit Player(const Agent& agent) : Player(agent, Setup{}) {}

    /// Receives until `done` holds. False when `timeout` passes first.
    bool receive_until(const std::function<bool()>& done,
                       std::chrono::milliseconds timeout = kPatience);
    /// Receives `count` more frames. False when they do not come.
    bool receive_frames(size_t count);

    void say(const std::string& type, const std::string& more = "");
    launcher::ControlClient& control() { return control_; }
    /// Receives until the agent ends the session. False when it does not.
    bool is_ended() {
        return receive_until([this] { return !control_.is_connected(); });
    }

    [[nodiscard]] const std::vector<Frame>& frames() const { return frames_; }
    [[nodiscard]] size_t keyframes_since(size_t first_frame) const;
    [[nodiscard]] size_t pictures() const { return pictures_; }
    [[nodiscard]] const launcher::StampChecker::Report& stamps() const { return stamps_.report(); }
    [[nodiscard]] const launcher::ReceiveStats& stats() const { return receiver_->stats(); }
    [[nodiscard]] const SessionKeySet& keys() const { return control_.keys(); }

    /// Called with each decoded picture.
    std::function<void(const launcher::DecodedPicture&)> on_picture;
    /// Called with each datagram of the picture, sealed as it came.
    std::function<void(std::span<const uint8_t>)> on_datagram;

  private:
    void take_frames();

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
