#include "launcher/client/input_channel.h"

#include <arpa/inet.h>
#include <sodium.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/byte_order.h"

namespace ox::launcher {

namespace {

InputSealer::Prefix random_prefix() {
    InputSealer::Prefix prefix{};
    randombytes_buf(prefix.data(), prefix.size());
    return prefix;
}

// The next motion makes up for a lost one, and feedback is repeated; a lost release would leave a
// key down.
bool must_arrive(const InputPacket& packet) {
    const auto kind = static_cast<InputKind>(packet.kind);
    return !is_feedback(packet.kind) && kind != InputKind::MouseMotion;
}

}  // namespace

InputSealer::InputSealer(std::span<const uint8_t, kKeyBytes> key)
    : InputSealer(key, random_prefix(), 0) {}

InputSealer::InputSealer(std::span<const uint8_t, kKeyBytes> key, const Prefix& prefix,
                         uint32_t first)
    : key_(key), prefix_(prefix), count_(first) {}

std::optional<InputSealer::Datagram> InputSealer::seal(InputPacket packet) {
    if (count_ > UINT32_MAX) return std::nullopt;
    const auto count = static_cast<uint32_t>(count_++);
    packet.version = InputPacket::kVersion;
    packet.seq = static_cast<uint16_t>(count);
    std::array<uint8_t, sizeof(InputPacket)> plaintext{};
    std::memcpy(plaintext.data(), &packet, sizeof packet);

    Datagram datagram{};
    std::ranges::copy(prefix_, datagram.begin());
    store_le(datagram.data() + prefix_.size(), count);
    if (crypto_aead_chacha20poly1305_ietf_encrypt(datagram.data() + kInputNonceBytes, nullptr,
                                                  plaintext.data(), plaintext.size(), nullptr, 0,
                                                  nullptr, datagram.data(), key_.data()) != 0)
        return std::nullopt;
    return datagram;
}

bool InputSealer::is_recent(const Datagram& datagram) const {
    constexpr uint64_t kReplayWindow = 64;
    return std::equal(prefix_.begin(), prefix_.end(), datagram.begin()) &&
           count_ - load_le<uint32_t>(datagram.data() + prefix_.size()) <= kReplayWindow;
}

bool InputChannel::open(const std::string& ip, uint16_t port,
                        std::span<const uint8_t, InputSealer::kKeyBytes> key, std::string& error) {
    const MutexLock lock(mutex_);
    socket_.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    agent_.sin_family = AF_INET;
    agent_.sin_port = htons(port);
    if (!socket_ || ::inet_pton(AF_INET, ip.c_str(), &agent_.sin_addr) != 1) {
        error = std::string("cannot send input: ") + std::strerror(errno);
        return false;
    }
    sealer_.emplace(key);
    return true;
}

void InputChannel::send(const InputPacket& packet) {
    const MutexLock lock(mutex_);
    const auto datagram = seal(packet);
    if (!datagram) return;
    transmit(*datagram);
    if (!must_arrive(packet)) return;
    transmit(*datagram);
    ++counters_.copies;
}

std::optional<InputSealer::Datagram> InputChannel::send_once(const InputPacket& packet) {
    const MutexLock lock(mutex_);
    const auto datagram = seal(packet);
    if (datagram) transmit(*datagram);
    return datagram;
}

void InputChannel::repeat(const InputSealer::Datagram& datagram) {
    const MutexLock lock(mutex_);
    if (!sealer_ || !sealer_->is_recent(datagram)) return;
    transmit(datagram);
    ++counters_.copies;
}

std::optional<InputSealer::Datagram> InputChannel::seal(const InputPacket& packet) {
    auto datagram = sealer_ ? sealer_->seal(packet) : std::nullopt;
    if (datagram) count(packet);
    return datagram;
}

void InputChannel::transmit(const InputSealer::Datagram& datagram) {
    if (::sendto(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&agent_), sizeof agent_) < 0)
        ++counters_.failed;
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
    const MutexLock lock(mutex_);
    return counters_;
}

}  // namespace ox::launcher
