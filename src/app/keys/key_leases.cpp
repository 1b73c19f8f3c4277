#include "app/keys/key_leases.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <optional>
#include <utility>

#include "app/keys/lease_file.h"
#include "base/clock.h"
#include "base/mutex.h"
#include "base/thread.h"
#include "log/log.h"

namespace ox {
namespace {

/// Ten minutes of the fastest stream: 120 frames and 200 packets of sound a second.
constexpr LeaseEnd kStep{.frames = 72'000, .audio = 120'000};
/// The least that a session has while the disk does not answer: a minute.
constexpr LeaseEnd kReserve{.frames = kStep.frames / 10, .audio = kStep.audio / 10};

}  // namespace

struct KeyLeases::State {
    explicit State(std::string folder) : file(std::move(folder)) {}

    /// Whether half of a step or less is left.
    [[nodiscard]] bool is_low(const KeyId& of, const StreamNumbers& numbers) const
        OX_REQUIRES(mutex);
    /// Claims a step for each stream that has `limit` or less left.
    LeaseTable::Claim claim(const KeyId& of, const StreamNumbers& numbers, const LeaseEnd& limit)
        OX_REQUIRES(mutex);
    /// Logs one line each time that the file stops working.
    void report(const LeaseFile::Outcome& outcome) OX_REQUIRES(mutex);

    // The worker's:
    /// A session that needs numbers.
    struct Job {
        std::shared_ptr<StreamNumbers> numbers;
        KeyId key{};
        uint64_t session = 0;
    };
    /// Marks the session `done` as served, then waits. Nothing when the worker is to end.
    std::optional<Job> wait_for_job(uint64_t done) OX_EXCLUDES(mutex);
    /// Claims and records.
    void extend(const Job& job) OX_EXCLUDES(mutex);

    const LeaseFile file;

    Mutex mutex;
    std::condition_variable changed;
    /// What this process has leased, and what was in the file.
    LeaseTable table OX_GUARDED_BY(mutex);
    // Of the current session.
    KeyId key OX_GUARDED_BY(mutex){};
    std::weak_ptr<StreamNumbers> current OX_GUARDED_BY(mutex);

    uint64_t sessions OX_GUARDED_BY(mutex) = 0;  ///< how many there were
    uint64_t served OX_GUARDED_BY(mutex) = 0;    ///< the last of them that has its first lease
    bool warned OX_GUARDED_BY(mutex) = false;    ///< nothing was recorded since
    bool stopping OX_GUARDED_BY(mutex) = false;
    bool finished OX_GUARDED_BY(mutex) = false;  ///< the worker has ended
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

void KeyLeases::State::extend(const Job& job) {
    const LeaseEnd half{.frames = kStep.frames / 2, .audio = kStep.audio / 2};
    std::optional<LeaseTable::Claim> claimed;
    LeaseEnd written;
    for (bool again = true; again;) {
        const LeaseFile::Outcome outcome = file.update([&](LeaseTable& recorded) {
            const MutexLock lock(mutex);
            recorded.merge(table);
            table = recorded;
            if (!claimed) claimed = claim(job.key, *job.numbers, half);
            recorded = table;
            written = table.end_of(job.key);
        });
        const MutexLock lock(mutex);
        report(outcome);
        if (!claimed) claimed = claim(job.key, *job.numbers, half);
        // `top_up` may have claimed more during a slow write.
        again = outcome.recorded() && table.end_of(job.key) != written;
    }
    job.numbers->video.add(claimed->first.frames, claimed->end.frames);
    job.numbers->audio.add(claimed->first.audio, claimed->end.audio);
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
    if (!worker_.joinable()) return;
    const auto deadline = SteadyClock::now() + std::chrono::milliseconds(500);
    bool finished = false;
    {
        MutexLock lock(state_->mutex);
        state_->stopping = true;
        state_->changed.notify_all();
        while (!state_->finished && SteadyClock::now() < deadline)
            lock.wait_until(state_->changed, deadline);
        finished = state_->finished;
    }
    finished ? worker_.join() : worker_.detach();
}

std::shared_ptr<StreamNumbers> KeyLeases::lease(std::span<const uint8_t> master_key) {
    auto numbers = std::make_shared<StreamNumbers>();
    {
        const MutexLock lock(state_->mutex);
        state_->key = key_id(master_key);
        state_->current = numbers;
        ++state_->sessions;
    }
    state_->changed.notify_all();
    if (!worker_.joinable()) {
        worker_ = start_thread(
            [state = state_] { run(*state); },
            [](const char* reason) { OX_WARN("KeyLeases: cannot start the thread: %s", reason); });
    }
    return numbers;
}

std::optional<KeyLeases::State::Job> KeyLeases::State::wait_for_job(uint64_t done) {
    constexpr std::chrono::seconds kCheckPeriod{1};
    MutexLock lock(mutex);
    served = done;
    changed.notify_all();
    while (!stopping) {
        std::shared_ptr<StreamNumbers> leased = current.lock();
        const bool idle = !leased;
        if (leased && (served != sessions || is_low(key, *leased))) {
            return Job{.numbers = std::move(leased), .key = key, .session = sessions};
        }
        leased.reset();
        if (idle) {
            lock.wait(changed);
        } else {
            lock.wait_until(changed, SteadyClock::now() + kCheckPeriod);
        }
    }
    finished = true;
    changed.notify_all();
    return std::nullopt;
}

void KeyLeases::run(State& state) {
    ::pthread_setname_np(::pthread_self(), "ox-leases");
    uint64_t done = 0;
    while (const auto job = state.wait_for_job(done)) {
        state.extend(*job);
        done = job->session;
    }
}

void KeyLeases::await(StreamNumbers& numbers, std::chrono::milliseconds limit,
                      const std::function<bool()>& stop) {
    constexpr std::chrono::milliseconds kSlice{50};
    const auto deadline = SteadyClock::now() + limit;
    {
        MutexLock lock(state_->mutex);
        while (worker_.joinable() && state_->served != state_->sessions &&
               SteadyClock::now() < deadline) {
            if (stop()) return;
            lock.wait_until(state_->changed, std::min(deadline, SteadyClock::now() + kSlice));
        }
        if (state_->served == state_->sessions) return;
    }
    top_up(numbers);
}

void KeyLeases::top_up(StreamNumbers& numbers) {
    if (numbers.video.left() > kReserve.frames && numbers.audio.left() > kReserve.audio) return;
    const MutexLock lock(state_->mutex);
    const LeaseEnd before = state_->table.end_of(state_->key);
    const LeaseTable::Claim more = state_->claim(state_->key, numbers, kReserve);
    if (more.end == before) return;  // used up
    state_->report({.error = "the disk does not answer"});
    numbers.video.add(more.first.frames, more.end.frames);
    numbers.audio.add(more.first.audio, more.end.audio);
}

}  // namespace ox
