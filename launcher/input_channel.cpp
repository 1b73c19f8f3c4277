#include "launcher/input_channel.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace ox::launcher {

namespace {

// A lost motion is followed by the next one, and feedback is repeated anyway; a lost release would
// leave a key down.
bool is_precious(const InputPacket& packet) {
    const auto kind = static_cast<InputKind>(packet.kind);
    return !is_feedback(packet.kind) && kind != InputKind::MouseMotion;
}

}  // namespace

bool InputChannel::open(const std::string& ip, uint16_t port,
                        std::span<const uint8_t, InputSealer::kKeyBytes> key, std::string& error) {
    socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    agent_.sin_family = AF_INET;
    agent_.sin_port = htons(port);
    if (!socket_ || ::inet_pton(AF_INET, ip.c_str(), &agent_.sin_addr) != 1) {
        error = std::string("cannot send input: ") + std::strerror(errno);
        return false;
    }
    const std::lock_guard lock(mutex_);
    sealer_.emplace(key);
    return true;
}

void InputChannel::send(const InputPacket& packet) {
    const std::lock_guard lock(mutex_);
    const auto datagram = sealer_ ? sealer_->seal(packet) : std::nullopt;
    if (!datagram) return;
    const int copies = is_precious(packet) ? 2 : 1;
    for (int i = 0; i < copies; ++i)
        ::sendto(socket_.get(), datagram->data(), datagram->size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&agent_), sizeof agent_);
    count(packet);
}

void InputChannel::count(const InputPacket& packet) {
    switch (static_cast<InputKind>(packet.kind)) {
        case InputKind::KeyframeRequest:
            ++counters_.keyframe_requests;
            break;
        case InputKind::RfiRequest:
            ++counters_.lost_frames_requests;
            break;
        case InputKind::MediaFeedback:
            ++counters_.media_feedback;
            break;
        case InputKind::MouseMotion:
        case InputKind::MouseButtons:
        case InputKind::Wheel:
        case InputKind::KeyDown:
        case InputKind::KeyUp:
            ++counters_.events;
            break;
    }
}

InputCounters InputChannel::counters() const {
    const std::lock_guard lock(mutex_);
    return counters_;
}

}  // namespace ox::launcher
