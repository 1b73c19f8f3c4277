#include "e2e/player.h"

#include <algorithm>
#include <span>
#include <stdexcept>

#include "base/clock.h"
#include "launcher/control_messages.h"

namespace ox::test {

Player::Player(const Agent& agent, const Setup& setup) : setup_(setup) {
    std::string error;
    const std::string ip = "127.0.0." + std::to_string(setup.host);
    const uint16_t port = setup.media_port == 0 ? agent.port_base() : setup.media_port;
    if (!media_.open(port, error, ip) || !decoder_.open(launcher::Codec::H264, error)) {
        throw std::runtime_error(error);
    }
    const std::string auth = launcher::make_auth_line({.token = kToken,
                                                       .width = setup.width,
                                                       .height = setup.height,
                                                       .fps = setup.fps,
                                                       .bitrate_kbps = setup.bitrate_kbps,
                                                       .udp_ip = {}});
    control_.set_local_ip(ip);
    if (control_.connect("127.0.0.1", agent.control_port(), auth, SteadyClock::now() + kPatience,
                         [] { return false; }) != launcher::ConnectResult::Ready) {
        throw std::runtime_error("not let in: " + control_.error());
    }
    receiver_.emplace(std::span<const uint8_t, 32>(keys().video_key),
                      launcher::VideoReceiver::Config{});
    media_.set_agent("127.0.0.1", static_cast<uint16_t>(agent.port_base() + 4));
}

bool Player::receive_until(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
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

bool Player::receive_frames(size_t count) {
    const size_t wanted = frames_.size() + count;
    return receive_until([&] { return frames_.size() >= wanted; });
}

void Player::take_frames() {
    while (const auto frame = receiver_->next_frame()) {
        frames_.push_back({frame->frame_id, frame->keyframe, frame->data.size()});
        decoder_.decode(*frame, [&](const launcher::DecodedPicture& picture) {
            ++pictures_;
            stamps_.add(picture.frame_id, launcher::read_frame_stamp(picture.luma));
            if (on_picture) on_picture(picture);
        });
    }
}

void Player::say(const std::string& type, const std::string& more) {
    control_.send_line(R"({"type":")" + type + "\"" + more + "}");
}

size_t Player::keyframes_since(size_t first_frame) const {
    return static_cast<size_t>(std::count_if(frames_.begin() + static_cast<ptrdiff_t>(first_frame),
                                             frames_.end(),
                                             [](const Frame& frame) { return frame.keyframe; }));
}

}  // namespace ox::test
