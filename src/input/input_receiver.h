#pragma once

#include <array>
#include <atomic>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <thread>

#include "base/mutex.h"
#include "base/secret.h"
#include "base/unique_fd.h"
#include "input/input_packet.h"
#include "input/replay_window.h"
#include "input/uinput_device.h"

namespace ox {

/// Injects the player's sealed input datagrams as a virtual keyboard and pointer. The owner starts
/// and stops a thread that neither allocates nor blocks and calls the feedback callback.
class InputReceiver {
  public:
    using FeedbackCallback = std::function<void(const InputPacket&)>;
    static constexpr size_t kKeyBytes = 32;

    InputReceiver() = default;
    ~InputReceiver();
    InputReceiver(const InputReceiver&) = delete;
    InputReceiver& operator=(const InputReceiver&) = delete;

    /// 32 bytes, else false; also while running. Without a key every datagram is dropped.
    bool set_key(const uint8_t* key, size_t length) OX_EXCLUDES(key_mutex_);

    /// Called on the receive thread for keyframe requests and feedback. Only while stopped.
    void set_feedback_callback(FeedbackCallback callback);

    /// Binds `port`, creates the device (continuing without one) and starts the thread with a new
    /// replay window. False, after an error line, when the port is not available.
    bool start(uint16_t port);

    /// Same with a descriptor in place of the device that `start` would create.
    bool start_with_device(uint16_t port, UniqueFd device);

    /// Any thread: releases every key and button within 200 ms; later input is injected as before.
    void release_pressed() { release_requested_ = true; }

    /// Any thread, across starts: drops input and releases pressed keys as above.
    void withhold(bool withheld);

    /// Ends the thread, releases every key and button, removes the device. Safe to call twice.
    void stop();

    /// errno with which the last `start` failed to bind its port; 0 when it could.
    [[nodiscard]] int bind_error() const { return bind_error_; }

    /// errno with which `start` failed to create the device; 0 when it could.
    [[nodiscard]] int device_error() const { return device_.error(); }

    [[nodiscard]] uint64_t received() const { return received_; }
    [[nodiscard]] uint64_t applied() const { return applied_; }
    [[nodiscard]] uint64_t feedback() const { return feedback_; }

  private:
    using Key = SecretArray<kKeyBytes>;

    bool bind_socket(uint16_t port);
    bool run(uint16_t port);
    void recv_loop();
    void handle_datagram(const uint8_t* bytes, size_t length);
    [[nodiscard]] bool open_datagram(const uint8_t* bytes, size_t length, InputPacket& packet)
        OX_EXCLUDES(key_mutex_);
    void apply_input(const InputPacket& packet);
    bool apply_buttons(uint8_t buttons);
    void apply_key(const InputPacket& packet, bool pressed);
    void release_stuck_inputs();

    UniqueFd socket_;
    int bind_error_ = 0;
    Mutex key_mutex_;
    std::optional<Key> key_ OX_GUARDED_BY(key_mutex_);
    FeedbackCallback feedback_callback_;  ///< constant while running
    std::atomic<bool> running_{false};
    std::atomic<bool> release_requested_{false};
    std::atomic<bool> withheld_{false};
    std::jthread thread_;

    // The receive thread's while it runs, else the owner's.
    UinputDevice device_;
    ReplayWindow window_;
    uint8_t last_buttons_ = 0;       ///< button bits last injected
    std::bitset<768> pressed_keys_;  ///< by Linux key code

    std::atomic<uint64_t> received_{0};
    std::atomic<uint64_t> applied_{0};
    std::atomic<uint64_t> feedback_{0};
};

}  // namespace ox
