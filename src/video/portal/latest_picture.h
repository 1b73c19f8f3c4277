#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "base/clock.h"
#include "base/mutex.h"
#include "video/capture.h"

namespace ox {

/// Passes the newest picture from one writer to any thread. A picture is copied once, by the writer
/// and outside the lock, into a buffer that readers borrow; returned buffers are reused.
class LatestPicture {
  public:
    LatestPicture();

    /// Size of the newest picture; 0 while there is none.
    [[nodiscard]] uint32_t width() const;
    [[nodiscard]] uint32_t height() const;

    /// `fill` writes width x height pixels of 4 bytes without padding. May throw std::bad_alloc.
    void store(uint32_t width, uint32_t height, const std::function<void(uint8_t*)>& fill);

    /// Lends the picture, with timestamp 0. False, and `frame` unchanged, when there is none yet.
    bool get(CapturedFrame& frame) const;

    [[nodiscard]] ChangeTimes& arrivals() { return arrivals_; }

    /// False at `deadline`, or once `cancelled`, called every 50 ms, returns true.
    bool wait_for_first(SteadyClock::time_point deadline,
                        const std::function<bool()>& cancelled) const;

  private:
    using Buffer = std::vector<uint8_t>;
    /// The unused buffers; outlives this object while one is borrowed.
    struct Pool {
        Mutex mutex;
        std::vector<std::unique_ptr<Buffer>> free OX_GUARDED_BY(mutex);
    };
    struct Picture {
        std::shared_ptr<const uint8_t> pixels;
        uint32_t width = 0;
        uint32_t height = 0;
        uint64_t content = 0;
    };

    std::unique_ptr<Buffer> take_buffer(size_t bytes) const;
    static std::shared_ptr<const uint8_t> share(std::unique_ptr<Buffer> buffer,
                                                std::shared_ptr<Pool> pool);

    std::shared_ptr<Pool> pool_;
    mutable Mutex mutex_;
    mutable std::condition_variable arrived_;
    Picture latest_ OX_GUARDED_BY(mutex_);
    ChangeTimes arrivals_;
};

}  // namespace ox
