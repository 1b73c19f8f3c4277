#include "play/input/input_sender.h"

#include <algorithm>
#include <cmath>

namespace ox::play {

namespace {

using namespace std::chrono_literals;

/// When a change is sent again: the first times byte for byte, then renewed, with a new number.
template <size_t N>
struct Schedule {
    size_t copies;
    std::array<int, N> after_ms;
};

// A copy cannot do harm: the agent takes each number once. But long bursts outlive them, and a fast
// mouse pushes their number out of the agent's window. A renewed press that is overtaken by the
// release presses twice, so it comes later than a tap lasts; a renewed release soon undoes a press
// that came behind it. The agent notices a dead connection after about 30 s, and releases itself.
constexpr Schedule<14> kPress{
    5, {8, 25, 50, 80, 120, 250, 400, 600, 1000, 2000, 5000, 10'000, 20'000, 40'000}};
constexpr Schedule<14> kRelease{
    2, {8, 25, 50, 80, 120, 200, 350, 600, 1000, 2000, 5000, 10'000, 20'000, 40'000}};
// Notches add up, so only copies.
constexpr Schedule<4> kWheel{4, {8, 25, 50, 80}};

// A mouse reports up to 8000 times a second. 500 packets a second leave a copy 128 ms in the
// agent's window of 64 numbers.
constexpr auto kMotionPeriod = 2ms;

constexpr int kWheelUnitsPerNotch = 120;
constexpr double kMaxNotches = INT16_MAX / kWheelUnitsPerNotch;

size_t index_of(const launcher::WireKey& key) {
    if (key == launcher::kPauseKey) return 0;  // no key has scan code 0
    return (key.scan_code & 0x7FU) | (key.extended ? 0x80U : 0U);
}

InputPacket make_packet(InputKind kind, int data0, int data1, uint8_t buttons) {
    InputPacket packet;
    packet.kind = static_cast<uint8_t>(kind);
    packet.data0 = static_cast<int16_t>(data0);
    packet.data1 = static_cast<int16_t>(data1);
    packet.buttons = buttons;
    return packet;
}

}  // namespace

InputSender::Output InputSender::output_of(launcher::InputChannel& channel) {
    return {.send = [&channel](const InputPacket& packet) { return channel.send_once(packet); },
            .repeat = [&channel](const Datagram& datagram) { channel.repeat(datagram); }};
}

InputPacket InputSender::buttons_packet() const {
    return make_packet(InputKind::MouseButtons, 0, 0, buttons_);
}

void InputSender::send(const InputPacket& packet, Repeats& repeats, Time now) {
    repeats = {.datagram = output_.send(packet), .since = now, .next = 0, .pending = true};
    next_due_ = std::min(next_due_, now);  // `tick` finds the time
}

void InputSender::key(const launcher::WireKey& key, bool down, Time now) {
    Key& state = keys_[index_of(key)];
    if (state.down == down) return;
    flush_motion(now);
    state.key = key;
    state.down = down;
    send(make_key_packet(key, down), state.repeats, now);
}

void InputSender::buttons(uint8_t buttons, bool down, Time now) {
    const auto after = static_cast<uint8_t>(down ? buttons_ | buttons : buttons_ & ~buttons);
    if (after == buttons_) return;
    flush_motion(now);
    buttons_ = after;
    button_pressed_ = down;
    send(buttons_packet(), button_repeats_, now);
}

void InputSender::move(int dx, int dy) {
    dx_ += dx;
    dy_ += dy;
}

void InputSender::wheel(double notches, Time now) {
    if (!std::isfinite(notches)) return;
    // A wheel that turns back starts at its rest.
    if (notches * notches_ < 0) notches_ = 0;
    notches_ = std::clamp(notches_ + notches, -kMaxNotches, kMaxNotches);
    // A high-resolution wheel adds tenths, which no double represents.
    constexpr double kRounding = 1e-4;
    const double whole = std::trunc(notches_ + std::copysign(kRounding, notches_));
    if (whole == 0) return;
    notches_ -= whole;
    flush_motion(now);
    const int units = static_cast<int>(whole) * kWheelUnitsPerNotch;
    send(make_packet(InputKind::Wheel, 0, units, buttons_), wheel_repeats_[next_wheel_], now);
    next_wheel_ = (next_wheel_ + 1) % wheel_repeats_.size();
}

void InputSender::release_all(Time now) {
    for (const Key& state : keys_)
        if (state.down) key(state.key, false, now);
    buttons(buttons_, false, now);
    flush_motion(now);
    notches_ = 0;
}

void InputSender::forget() {
    for (Key& state : keys_)
        state = {};
    buttons_ = 0;
    button_repeats_ = {};
    wheel_repeats_.fill({});
    notches_ = 0;
    dx_ = dy_ = 0;
    next_due_ = Time::max();
}

void InputSender::flush_motion(Time now) {
    while (dx_ != 0 || dy_ != 0) {
        const auto dx = std::clamp<int64_t>(dx_, INT16_MIN, INT16_MAX);
        const auto dy = std::clamp<int64_t>(dy_, INT16_MIN, INT16_MAX);
        output_.send(make_packet(InputKind::MouseMotion, static_cast<int>(dx), static_cast<int>(dy),
                                 buttons_));
        dx_ -= dx;
        dy_ -= dy;
        last_motion_ = now;
    }
}

template <typename Steps>
void InputSender::repeat_due(Repeats& repeats, const Steps& schedule, const InputPacket& state,
                             Time now) {
    if (!repeats.pending) return;
    const auto due = [&] {
        return repeats.since + std::chrono::milliseconds(schedule.after_ms[repeats.next]);
    };
    const size_t first = repeats.next;
    while (repeats.next < schedule.after_ms.size() && due() <= now)
        ++repeats.next;
    // After a pause only the last one due: it says the same.
    if (repeats.next > first) {
        if (repeats.next > schedule.copies) {
            output_.send(state);
        } else if (repeats.datagram) {
            output_.repeat(*repeats.datagram);
        }
    }
    repeats.pending = repeats.next < schedule.after_ms.size();
    if (repeats.pending) next_due_ = std::min(next_due_, due());
}

InputSender::Time InputSender::tick(Time now) {
    if (now >= last_motion_ + kMotionPeriod) flush_motion(now);
    if (now >= next_due_) {
        next_due_ = Time::max();
        for (Key& state : keys_)
            repeat_due(state.repeats, state.down ? kPress : kRelease,
                       make_key_packet(state.key, state.down), now);
        repeat_due(button_repeats_, button_pressed_ ? kPress : kRelease, buttons_packet(), now);
        for (Repeats& repeats : wheel_repeats_)
            repeat_due(repeats, kWheel, {}, now);
    }
    const bool moved = dx_ != 0 || dy_ != 0;
    return moved ? std::min(next_due_, last_motion_ + kMotionPeriod) : next_due_;
}

}  // namespace ox::play
