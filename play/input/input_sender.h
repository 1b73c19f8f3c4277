#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

#include "base/clock.h"
#include "launcher/client/input_channel.h"
#include "launcher/client/wire_key.h"

namespace ox::play {

/// Turns the state of keys and buttons, motion and wheel into packets, and sends each change again
/// for 40 seconds as far as it is still the newest, so that no lost datagram leaves a key down
/// (docs/wire-protocol.md, section 8.2). Does not allocate. One thread; time is passed in.
class InputSender {
  public:
    using Time = SteadyClock::time_point;
    using Datagram = launcher::InputSealer::Datagram;

    struct Output {
        /// Seals and sends a packet once; nothing without a connection.
        std::function<std::optional<Datagram>(const InputPacket&)> send;
        /// Sends a datagram that `send` returned again.
        std::function<void(const Datagram&)> repeat;
    };
    /// `channel` must outlive the output.
    static Output output_of(launcher::InputChannel& channel);

    explicit InputSender(Output output) : output_(std::move(output)) {}

    void key(const launcher::WireKey& key, bool down, Time now);
    /// `buttons` as in InputPacket.
    void buttons(uint8_t buttons, bool down, Time now);
    /// Motion in counts of the mouse. Sent by `tick`, or before the next key, button or wheel.
    void move(int dx, int dy);
    /// `notches` away from the user. Fractions add up: the agent drops less than a notch.
    void wheel(double notches, Time now);

    void release_all(Time now);

    /// Without a packet: everything counts as released and nothing is repeated any more.
    void forget();

    /// Sends what is due; the time when the next is, or Time::max().
    Time tick(Time now);

  private:
    /// A sent change and the place in its schedule of repeats.
    struct Repeats {
        std::optional<Datagram> datagram;
        Time since{};
        size_t next = 0;
        bool pending = false;
    };
    struct Key {
        launcher::WireKey key;
        bool down = false;
        Repeats repeats;
    };

    [[nodiscard]] InputPacket buttons_packet() const;
    void send(const InputPacket& packet, Repeats& repeats, Time now);
    void flush_motion(Time now);
    template <typename Steps>
    void repeat_due(Repeats& repeats, const Steps& schedule, const InputPacket& state, Time now);

    Output output_;
    std::array<Key, 256> keys_{};  ///< by scan code and extended flag
    uint8_t buttons_ = 0;
    bool button_pressed_ = false;  ///< the last change of a button was a press
    Repeats button_repeats_;
    std::array<Repeats, 16> wheel_repeats_{};  ///< a ring
    size_t next_wheel_ = 0;
    double notches_ = 0;
    int64_t dx_ = 0;
    int64_t dy_ = 0;
    Time last_motion_{};
    Time next_due_ = Time::max();
};

}  // namespace ox::play
