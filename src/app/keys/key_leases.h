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

/// Keeps a key that comes again from sealing under numbers that it has sealed under before. The
/// platform decides which session gets which master key, the stream keys follow from it, and a
/// number is part of the nonce; so a key is given its numbers in leases, which a file records
/// before the first of them is used. A key that comes again, in this process or another one of this
/// user, goes on behind the last lease.
///
/// A lease lasts for ten minutes at least and is extended when half of it is left, by a thread of
/// its own: no disk keeps the caller waiting for longer than `await` says. Where nothing can be
/// recorded, a WARN line says so once, and what this process has leased is kept apart all the same.
/// Everything is called by the main thread.
class KeyLeases {
  public:
    /// The file lies in `folder`.
    explicit KeyLeases(std::string folder);
    /// Ends the thread; one that the disk keeps for more than half a second is left to itself.
    ~KeyLeases();
    KeyLeases(const KeyLeases&) = delete;
    KeyLeases& operator=(const KeyLeases&) = delete;

    /// Begins to lease numbers of this 32-byte master key, for as long as the result is held. One
    /// session at a time.
    std::shared_ptr<StreamNumbers> lease(std::span<const uint8_t> master_key);

    /// Waits until the first lease is recorded, for `limit` at most, and less when `stop`, asked
    /// every 50 ms, returns true. Afterwards there are numbers, unless all are used up.
    void await(StreamNumbers& numbers, std::chrono::milliseconds limit,
               const std::function<bool()>& stop);

    /// Now and then while the session lasts: never lets it run out of numbers because of a disk
    /// that does not answer. Does not block.
    void top_up(StreamNumbers& numbers);

  private:
    struct State;
    static void run(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;  ///< shared with the thread, which may outlive this
    std::thread worker_;
};

}  // namespace ox
