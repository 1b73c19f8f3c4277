#include "input/input_receiver.h"

#include <arpa/inet.h>
#include <linux/input-event-codes.h>
#include <netinet/in.h>
#include <poll.h>
#include <sodium.h>
#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/thread.h"
#include "input/key_map.h"
#include "log/log.h"
#include "scheduling/thread_priority.h"

namespace ox {
namespace {

constexpr int kPollMs = 200;
constexpr int kReceiveBufferBytes = 65536;
constexpr int kWheelUnitsPerNotch = 120;
constexpr std::array<uint16_t, 3> kButtons{BTN_LEFT, BTN_RIGHT, BTN_MIDDLE};
constexpr std::array<uint16_t, 8> kModifiers{KEY_LEFTALT,   KEY_RIGHTALT,  KEY_LEFTCTRL,
                                             KEY_RIGHTCTRL, KEY_LEFTSHIFT, KEY_RIGHTSHIFT,
                                             KEY_LEFTMETA,  KEY_RIGHTMETA};

}  // namespace

InputReceiver::~InputReceiver() {
    stop();
}

bool InputReceiver::set_key(const uint8_t* key, size_t length) {
    if (key == nullptr || length != kKeyBytes) {
        OX_ERROR("InputReceiver: invalid key size %zu", length);
        return false;
    }
    const MutexLock lock(key_mutex_);
    key_.emplace(std::span<const uint8_t, kKeyBytes>(key, kKeyBytes));
    return true;
}

void InputReceiver::set_feedback_callback(FeedbackCallback callback) {
    assert(!running_);
    feedback_callback_ = std::move(callback);
}

bool InputReceiver::start(uint16_t port) {
    stop();
    if (!bind_socket(port)) return false;
    device_.uinput_init();
    return run(port);
}

bool InputReceiver::start_with_device(uint16_t port, UniqueFd device) {
    stop();
    if (!bind_socket(port)) return false;
    device_.adopt(std::move(device));
    return run(port);
}

bool InputReceiver::bind_socket(uint16_t port) {
    bind_error_ = 0;
    UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket) {
        OX_ERROR("InputReceiver: socket() failed: %s", std::strerror(errno));
        return false;
    }
    const int on = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes,
                 sizeof kReceiveBufferBytes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        bind_error_ = errno;
        OX_ERROR("InputReceiver: bind :%u failed: %s", port, std::strerror(bind_error_));
        return false;
    }
    socket_ = std::move(socket);
    return true;
}

bool InputReceiver::run(uint16_t port) {
    window_.reset();
    last_buttons_ = 0;
    release_requested_ = false;  // may be left over from the last run
    running_ = true;
    thread_ = start_thread([this] { recv_loop(); },
                           [](const char* why) {
                               OX_ERROR("InputReceiver: cannot start the receive thread: %s", why);
                           });
    if (!thread_.joinable()) {
        stop();
        return false;
    }
    OX_INFO("InputReceiver: listening on UDP port %u%s", port,
            device_.is_present() ? "" : " (headless — events decoded but not injected)");
    return true;
}

void InputReceiver::recv_loop() {
    const RealTimePriority priority("InputReceiver");
    std::array<uint8_t, 256> buffer;  // NOLINT: filled by recv
    while (running_) {
        pollfd entry{.fd = socket_.get(), .events = POLLIN, .revents = 0};
        const int ready = ::poll(&entry, 1, kPollMs);
        if (release_requested_.exchange(false)) release_stuck_inputs();
        if (ready < 0 && errno != EINTR) return;
        if (ready <= 0 || (entry.revents & POLLIN) == 0) continue;
        const ssize_t length = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
        if (length < 1) continue;
        ++received_;
        handle_datagram(buffer.data(), static_cast<size_t>(length));
    }
}

void InputReceiver::handle_datagram(const uint8_t* bytes, size_t length) {
    InputPacket packet;
    if (!open_datagram(bytes, length, packet) || packet.version != InputPacket::kVersion) return;
    if (!window_.accept_sequence(packet.seq)) return;
    if (is_feedback(packet.kind)) {
        ++feedback_;
        if (feedback_callback_) feedback_callback_(packet);
        return;
    }
    if (withheld_) return;
    apply_input(packet);
    ++applied_;
}

void InputReceiver::withhold(bool withheld) {
    if (!withheld_.exchange(withheld) && withheld) release_pressed();
}

bool InputReceiver::open_datagram(const uint8_t* bytes, size_t length, InputPacket& packet) {
    const MutexLock lock(key_mutex_);
    if (!key_) {
        static std::atomic<bool> reported{false};
        if (!reported.exchange(true)) {
            OX_ERROR("InputReceiver: no decryption key — dropping all input packets");
        }
        return false;
    }
    if (length != kInputDatagramBytes) return false;
    if (!open_input_datagram(key_->data(), {bytes, length}, packet)) {
        OX_TRACE("InputReceiver: decryption failed (auth)");
        return false;
    }
    return true;
}

void InputReceiver::apply_input(const InputPacket& packet) {
    switch (static_cast<InputKind>(packet.kind)) {
        case InputKind::MouseMotion:
            if (packet.data0 != 0) device_.uinput_rel(REL_X, packet.data0);
            if (packet.data1 != 0) device_.uinput_rel(REL_Y, packet.data1);
            apply_buttons(packet.buttons);
            device_.uinput_sync();
            return;
        case InputKind::MouseButtons:
            if (apply_buttons(packet.buttons)) device_.uinput_sync();
            return;
        case InputKind::Wheel: {
            const int notches = packet.data1 / kWheelUnitsPerNotch;
            if (notches != 0) device_.uinput_rel(REL_WHEEL, notches);
            device_.uinput_sync();
            return;
        }
        case InputKind::KeyDown:
            apply_key(packet, true);
            return;
        case InputKind::KeyUp:
            apply_key(packet, false);
            return;
        case InputKind::KeyframeRequest:
        case InputKind::RfiRequest:
        case InputKind::MediaFeedback:
            return;
    }
}

bool InputReceiver::apply_buttons(uint8_t buttons) {
    const auto changed = static_cast<uint8_t>(buttons ^ last_buttons_);
    bool any = false;
    for (size_t i = 0; i < kButtons.size(); ++i) {
        const unsigned bit = 1U << i;
        if ((changed & bit) == 0) continue;
        device_.uinput_key(kButtons[i], (buttons & bit) != 0);
        any = true;
    }
    last_buttons_ = buttons;
    return any;
}

void InputReceiver::apply_key(const InputPacket& packet, bool pressed) {
    const auto virtual_key = static_cast<uint16_t>(packet.data0);
    const int code = linux_key_code(virtual_key, packet.scan_code(), packet.extended_key());
    if (code == 0) {
        OX_TRACE("InputReceiver: unmapped key vk=0x%02x scan=0x%02x ext=%d", virtual_key,
                 packet.scan_code(), packet.extended_key() ? 1 : 0);
        return;
    }
    device_.uinput_key(static_cast<uint16_t>(code), pressed);
    pressed_keys_.set(static_cast<size_t>(code), pressed);
    device_.uinput_sync();
}

void InputReceiver::release_stuck_inputs() {
    const size_t pressed = pressed_keys_.count();
    for (size_t code = 0; pressed > 0 && code < pressed_keys_.size(); ++code) {
        if (pressed_keys_[code]) device_.uinput_key(static_cast<uint16_t>(code), false);
    }
    pressed_keys_.reset();
    if (pressed > 0) OX_INFO("InputReceiver: released %zu tracked pressed keys", pressed);
    for (const uint16_t code : kModifiers)
        device_.uinput_key(code, false);
    for (const uint16_t code : kButtons)
        device_.uinput_key(code, false);
    device_.uinput_sync();
    last_buttons_ = 0;
}

void InputReceiver::stop() {
    if (!socket_) return;
    running_ = false;
    // Wakes the poll, although it fails on an unconnected datagram socket.
    ::shutdown(socket_.get(), SHUT_RD);
    if (thread_.joinable()) thread_.join();
    release_stuck_inputs();
    device_.destroy();
    socket_.reset();
    OX_INFO("InputReceiver: stopped (%llu received, %llu applied)",
            static_cast<unsigned long long>(received_.load()),
            static_cast<unsigned long long>(applied_.load()));
}

}  // namespace ox
