#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/clock.h"
#include "base/mutex.h"

namespace ox {

/// How far the scaler's vector code may read past a picture of odd width: readable in all pictures.
inline constexpr size_t kReadSlack = 64;

inline void resize_with_slack(std::vector<uint8_t>& pixels, size_t bytes) {
    pixels.reserve(bytes + kReadSlack);
    pixels.resize(bytes);
}

/// A number for a picture's content, unique in this process. Any thread.
inline uint64_t next_content() {
    static std::atomic<uint64_t> last{0};
    return ++last;
}

/// One picture: width x height pixels of B, G, R, A without row padding, read through `pixels()`.
/// The backend's own memory, kept alive by `lent`, changes with the next `capture_frame` and stays
/// readable as long as the frame holds it. Its fourth bytes are undefined, those in `data` 255.
struct CapturedFrame {
    std::vector<uint8_t> data;
    std::shared_ptr<const uint8_t> lent;
    uint32_t width = 0;
    uint32_t height = 0;
    uint64_t timestamp = 0;  ///< steady-clock us when the picture was taken; 0: unknown
    /// Identifies the pixels (`next_content`): the same number, the same pixels. 0: unknown.
    uint64_t content = 0;

    [[nodiscard]] const uint8_t* pixels() const { return lent ? lent.get() : data.data(); }
    [[nodiscard]] bool empty() const {
        return width == 0 || height == 0 || (!lent && data.empty());
    }
};

/// When a backend's picture changed: written by one thread, read by another.
class ChangeTimes {
  public:
    void note(SteadyClock::time_point at) {
        const MutexLock lock(mutex_);
        times_[count_++ % times_.size()] = at;
    }

    [[nodiscard]] uint64_t count() const {
        const MutexLock lock(mutex_);
        return count_;
    }

    /// Calls `sink` with the time of each change since the last call, in order; only the last 16.
    template <typename Sink>
    void take(Sink&& sink) {
        std::array<SteadyClock::time_point, kCapacity> times;
        size_t fresh = 0;
        {
            const MutexLock lock(mutex_);
            fresh = static_cast<size_t>(std::min<uint64_t>(count_ - taken_, kCapacity));
            for (size_t i = 0; i < fresh; ++i)
                times[i] = times_[(count_ - fresh + i) % kCapacity];
            taken_ = count_;
        }
        for (size_t i = 0; i < fresh; ++i)
            sink(times[i]);
    }

  private:
    static constexpr size_t kCapacity = 16;

    mutable Mutex mutex_;
    std::array<SteadyClock::time_point, kCapacity> times_ OX_GUARDED_BY(mutex_){};
    uint64_t count_ OX_GUARDED_BY(mutex_) = 0;
    uint64_t taken_ OX_GUARDED_BY(mutex_) = 0;
};

enum class CaptureState : uint8_t {
    Live,           ///< pictures come when something changes
    Doubtful,       ///< it may have ended; decided within about a second
    Lost,           ///< it ended, but not by the owner: opening it anew may help
    Gone,           ///< it failed or ended for good, but not by the owner
    OwnerStopped,   ///< the PC's owner has ended the share
    OwnerDeclined,  ///< the PC's owner has declined it
    OwnerAbsent,    ///< nobody at the PC answered the request
};

/// A source of screen pictures. Used by one thread.
class ICapture {
  public:
    virtual ~ICapture() = default;
    /// Prepares the backend. False, after a log line, when it cannot work.
    virtual bool init() = 0;
    /// Fills `frame` and returns 0; returns 1 when there is no picture (frame is left as it was).
    virtual int capture_frame(CapturedFrame& frame) = 0;
    [[nodiscard]] virtual uint32_t width() const = 0;
    [[nodiscard]] virtual uint32_t height() const = 0;
    /// When the picture changed; null where that is not known. Valid until another function's call.
    [[nodiscard]] virtual ChangeTimes* changes() { return nullptr; }
    /// State of the source, or why `init` failed. Polled with every picture and while a launcher is
    /// awaited; never blocks.
    virtual CaptureState state() { return CaptureState::Live; }
    /// Nothing but black has come for a while.
    [[nodiscard]] virtual bool is_black() const { return false; }
    virtual void shutdown() {}
};

}  // namespace ox
