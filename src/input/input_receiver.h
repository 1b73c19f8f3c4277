#pragma once

#include <array>
#include <atomic>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "base/secret.h"
#include "base/unique_fd.h"
#include "input/input_packet.h"
#include "input/replay_window.h"
#include "input/uinput_device.h"

namespace ox {

/// Receives the player's sealed input datagrams and injects them as a virtual keyboard and pointer.
/// The owner starts and stops it; one thread of its own opens, checks and injects, and calls the
/// feedback callback. Nothing on that way allocates or waits.
class InputReceiver {
  public:
    using FeedbackCallback = std::function<void(const InputPacket&)>;
    static constexpr size_t kKeyBytes = 32;

    InputReceiver() = default;
    ~InputReceiver();
    InputReceiver(const InputReceiver&) = delete;
    InputReceiver& operator=(const InputReceiver&) = delete;

    /// Takes the 32-byte input key, also while running. False for any other length. Until there is
    /// a key every datagram is dropped.
    bool set_key(const uint8_t* key, size_t length);

    /// Called on the receive thread for keyframe requests and feedback. Waits for a running call.
    void set_feedback_callback(FeedbackCallback callback);

    /// Binds `port`, creates the device (going on without one) and starts the thread with a fresh
    /// replay window. False, after an error line, when the port cannot be had.
    bool start(uint16_t port);

    /// Same with a descriptor in place of the device that `start` would create.
    bool start_with_device(uint16_t port, UniqueFd device);

    /// Has every key and button released soon, by the receive thread: nobody may be there to do it.
    /// What comes afterwards is injected as before.
    void release_pressed() { release_wanted_ = true; }

    /// Withholds input, or lets it through again, from now on and over every start: what comes
    /// meanwhile is dropped, and what is held down is released soon. Any thread.
    void withhold(bool withheld);

    /// Ends the thread, releases every key and button, removes the device. Safe to call twice.
    void stop();

    /// errno with which the last `start` failed to bind its port; 0 when it could.
    [[nodiscard]] int bind_error() const { return bind_error_; }

    /// errno that tells why `start` went on without a device; 0 when it made one.
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
    [[nodiscard]] bool open_datagram(const uint8_t* bytes, size_t length, InputPacket& packet);
    void deliver_feedback(const InputPacket& packet);
    void apply_input(const InputPacket& packet);
    bool apply_buttons(uint8_t buttons);
    void apply_key(const InputPacket& packet, bool pressed);
    void release_stuck_inputs();

    UniqueFd socket_;
    int bind_error_ = 0;
    UinputDevice device_;  ///< receive thread while running, owner before and after
    std::mutex key_mutex_;
    std::optional<Key> key_;  ///< guarded by key_mutex_
    std::atomic<bool> running_{false};
    std::atomic<bool> release_wanted_{false};
    std::atomic<bool> withheld_{false};
    std::jthread thread_;
    ReplayWindow window_;       ///< receive thread
    uint8_t last_buttons_ = 0;  ///< button bits last injected; as `device_`
    std::mutex pressed_mutex_;
    std::bitset<768> pressed_keys_;  ///< Linux codes held down; guarded by pressed_mutex_
    std::mutex feedback_mutex_;
    FeedbackCallback feedback_callback_;  ///< guarded by feedback_mutex_, held while it runs
    std::atomic<uint64_t> received_{0};
    std::atomic<uint64_t> applied_{0};
    std::atomic<uint64_t> feedback_{0};
};

}  // namespace ox
