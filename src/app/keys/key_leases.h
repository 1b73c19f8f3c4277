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

struct StreamNumbers {
    PacketNumbers video{0, 0};
    PacketNumbers audio{0, 0};  ///< each of its ranges begins at a multiple of four
};

/// Gives a key that is used again unused packet numbers, as these are part of the nonce. Numbers
/// are leased for ten minutes at least; a file records a lease before its first number is used, and
/// the key's next session, in any process of this user, continues behind it. A thread extends
/// leases halfway, so that nobody waits for a disk. Where nothing can be recorded, a warning is
/// logged once and numbers are only kept apart within this process. Called by the main thread.
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
