#include "app/keys/key_leases.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <system_error>
#include <utility>

#include "app/keys/lease_file.h"
#include "base/clock.h"
#include "log/log.h"

namespace ox {
namespace {

/// Ten minutes of the fastest stream: 120 frames and 200 packets of sound a second.
constexpr LeaseEnd kStep{.frames = 72'000, .audio = 120'000};
/// What a session must have left when the disk does not answer: a minute.
constexpr LeaseEnd kReserve{.frames = kStep.frames / 10, .audio = kStep.audio / 10};

}  // namespace

struct KeyLeases::State {
    explicit State(std::string folder) : file(std::move(folder)) {}

    /// Whether there is something to lease for a stream with half a step or less. Needs the mutex.
    [[nodiscard]] bool is_low(const KeyId& of, const StreamNumbers& numbers) const;
    /// Leases more for a stream that has `limit` or less left. Needs the mutex.
    LeaseTable::Claim claim(const KeyId& of, const StreamNumbers& numbers, const LeaseEnd& limit);
    /// Leases and records. The worker's, without the mutex.
    void extend(const KeyId& of, StreamNumbers& numbers);
    /// One line for each time that the file stops working. Needs the mutex.
    void report(const LeaseFile::Outcome& outcome);

    const LeaseFile file;  ///< the worker's

    std::mutex mutex;
    std::condition_variable changed;
    // All below are guarded by `mutex`.
    LeaseTable table;  ///< what this process has leased, and what the file said
    KeyId key{};       ///< of the session being served
    std::weak_ptr<StreamNumbers> session;
    uint64_t sessions = 0;  ///< how many there were
    uint64_t served = 0;    ///< the last of them that has its first lease
    bool warned = false;    ///< nothing was recorded since
    bool stopping = false;
    bool finished = false;  ///< the worker has left
};

bool KeyLeases::State::is_low(const KeyId& of, const StreamNumbers& numbers) const {
    const LeaseEnd end = table.end_of(of);
    return (numbers.video.left() <= kStep.frames / 2 && end.frames < LeaseTable::kUsedUp) ||
           (numbers.audio.left() <= kStep.audio / 2 && end.audio < LeaseTable::kUsedUp);
}

LeaseTable::Claim KeyLeases::State::claim(const KeyId& of, const StreamNumbers& numbers,
                                          const LeaseEnd& limit) {
    // Other keys may have pushed this one out of the table.
    table.raise(of, {.frames = numbers.video.end(), .audio = numbers.audio.end()});
    return table.claim(of, {.frames = numbers.video.left() <= limit.frames ? kStep.frames : 0,
                            .audio = numbers.audio.left() <= limit.audio ? kStep.audio : 0});
}

void KeyLeases::State::extend(const KeyId& of, StreamNumbers& numbers) {
    const LeaseEnd half{.frames = kStep.frames / 2, .audio = kStep.audio / 2};
    std::optional<LeaseTable::Claim> claimed;
    LeaseEnd written;
    for (bool again = true; again;) {
        const LeaseFile::Outcome outcome = file.update([&](LeaseTable& recorded) {
            const std::lock_guard lock(mutex);
            recorded.merge(table);
            table = recorded;
            if (!claimed) claimed = claim(of, numbers, half);
            recorded = table;
            written = table.end_of(of);
        });
        const std::lock_guard lock(mutex);
        report(outcome);
        if (!claimed) claimed = claim(of, numbers, half);
        // While the disk kept us, the session may have been given more.
        again = outcome.recorded() && table.end_of(of) != written;
    }
    numbers.video.add(claimed->first.frames, claimed->end.frames);
    numbers.audio.add(claimed->first.audio, claimed->end.audio);
}

void KeyLeases::State::report(const LeaseFile::Outcome& outcome) {
    if (outcome.damaged && (outcome.recorded() || !warned)) {
        OX_WARN(
            "KeyLeases: %s was damaged, %zu key(s) of it could be read - kept as %s.damaged; a key "
            "that was lost with it may use packet numbers again",
            file.path().c_str(), outcome.salvaged, file.path().c_str());
    }
    if (!outcome.recorded() && !warned) {
        OX_WARN(
            "KeyLeases: cannot record used packet numbers in %s (%s) - a key that comes again "
            "after a restart of the agent may use them again",
            file.path().c_str(), outcome.error.c_str());
    }
    warned = !outcome.recorded();
}

KeyLeases::KeyLeases(std::string folder) : state_(std::make_shared<State>(std::move(folder))) {}

KeyLeases::~KeyLeases() {
    constexpr std::chrono::milliseconds kPatience{500};
    if (!worker_.joinable()) return;
    std::unique_lock lock(state_->mutex);
    state_->stopping = true;
    state_->changed.notify_all();
    const bool finished =
        state_->changed.wait_for(lock, kPatience, [this] { return state_->finished; });
    lock.unlock();
    finished ? worker_.join() : worker_.detach();
}

std::shared_ptr<StreamNumbers> KeyLeases::lease(std::span<const uint8_t> master_key) {
    auto numbers = std::make_shared<StreamNumbers>();
    {
        const std::lock_guard lock(state_->mutex);
        state_->key = key_id(master_key);
        state_->session = numbers;
        ++state_->sessions;
    }
    state_->changed.notify_all();
    if (worker_.joinable()) return numbers;
    try {
        worker_ = std::thread([state = state_] { run(state); });
    } catch (const std::system_error& error) {
        OX_WARN("KeyLeases: cannot start the thread: %s", error.what());
    }
    return numbers;
}

void KeyLeases::run(const std::shared_ptr<State>& state) {
    ::pthread_setname_np(::pthread_self(), "ox-leases");
    constexpr std::chrono::seconds kLook{1};
    std::unique_lock lock(state->mutex);
    while (!state->stopping) {
        std::shared_ptr<StreamNumbers> numbers = state->session.lock();
        const uint64_t session = state->sessions;
        const KeyId key = state->key;
        if (numbers && (state->served != session || state->is_low(key, *numbers))) {
            lock.unlock();
            state->extend(key, *numbers);
            lock.lock();
            state->served = session;
            state->changed.notify_all();
            continue;
        }
        // Without a session there is nothing to look after, and nothing to hold.
        const bool idle = !numbers;
        numbers.reset();
        idle ? state->changed.wait(lock) : static_cast<void>(state->changed.wait_for(lock, kLook));
    }
    state->finished = true;
    state->changed.notify_all();
}

void KeyLeases::await(StreamNumbers& numbers, std::chrono::milliseconds limit,
                      const std::function<bool()>& stop) {
    constexpr std::chrono::milliseconds kSlice{50};
    const auto deadline = SteadyClock::now() + limit;
    {
        std::unique_lock lock(state_->mutex);
        while (worker_.joinable() && state_->served != state_->sessions &&
               SteadyClock::now() < deadline) {
            if (stop()) return;
            state_->changed.wait_until(lock, std::min(deadline, SteadyClock::now() + kSlice));
        }
        if (state_->served == state_->sessions) return;
    }
    top_up(numbers);
}

void KeyLeases::top_up(StreamNumbers& numbers) {
    if (numbers.video.left() > kReserve.frames && numbers.audio.left() > kReserve.audio) return;
    const std::lock_guard lock(state_->mutex);
    const LeaseEnd before = state_->table.end_of(state_->key);
    const LeaseTable::Claim more = state_->claim(state_->key, numbers, kReserve);
    if (more.end == before) return;  // used up
    state_->report({.error = "the disk does not answer"});
    numbers.video.add(more.first.frames, more.end.frames);
    numbers.audio.add(more.first.audio, more.end.audio);
}

}  // namespace ox
