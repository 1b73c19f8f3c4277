#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <thread>

#include "transport/packet_numbers.h"

namespace ox {

/// The numbers under which one session seals.
struct StreamNumbers {
    PacketNumbers video{0, 0};
    PacketNumbers audio{0, 0};  ///< each of its ranges begins at a multiple of four
};

/// Gives a key that is used again packet numbers that it has not been used with before: stream keys
/// are derived from the platform's master key, and a packet number is part of the nonce. Numbers
/// are leased, and a file records a lease before its first number is used; the next session of the
/// key, in this process or another one of this user, continues behind the last lease.
///
/// A lease lasts for ten minutes at least. A thread extends it when half of it is left, so that no
/// caller waits for a disk for longer than `await` says. Where nothing can be recorded, a warning
/// is logged once, and numbers are only kept apart within this process. Called by the main thread.
class KeyLeases {
  public:
    /// The file lies in `folder`.
    explicit KeyLeases(std::string folder);
    /// Ends the thread; after half a second in a blocked disk operation it is detached.
    ~KeyLeases();
    KeyLeases(const KeyLeases&) = delete;
    KeyLeases& operator=(const KeyLeases&) = delete;

    /// Begins to lease numbers of this 32-byte master key, until the result is released. One
    /// session at a time.
    std::shared_ptr<StreamNumbers> lease(std::span<const uint8_t> master_key);

    /// Waits until the first lease is recorded, `limit` has passed or `stop`, called every 50 ms,
    /// returns true. Afterwards there are numbers, unless all are used up.
    void await(StreamNumbers& numbers, std::chrono::milliseconds limit,
               const std::function<bool()>& stop);

    /// To be called regularly during the session: leases numbers, without recording them, before a
    /// blocked disk lets them run out. Does not block.
    void top_up(StreamNumbers& numbers);

  private:
    struct State;
    static void run(State& state);

    std::shared_ptr<State> state_;  ///< shared with the thread, which may outlive this
    std::jthread worker_;
};

}  // namespace ox
