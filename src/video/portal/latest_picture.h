#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "base/clock.h"
#include "video/capture.h"

namespace ox {

/// Hands the newest picture from the thread that gets them to the thread that shows them. A picture
/// is copied once, by the writer and outside the lock, into a buffer that readers borrow; a buffer
/// that nobody borrows any more is used again. Any thread may call; one writer.
class LatestPicture {
  public:
    LatestPicture();

    /// Size of the newest picture; 0 as long as there is none.
    [[nodiscard]] uint32_t width() const;
    [[nodiscard]] uint32_t height() const;

    /// Takes a picture of this size: `fill` writes its width x height pixels of 4 bytes, without
    /// padding, to where it is told. May throw std::bad_alloc.
    void on_frame(uint32_t width, uint32_t height, const std::function<void(uint8_t*)>& fill);

    /// Lends the newest picture to `frame`, with timestamp 0. False, and `frame` as it was, when
    /// none has come yet. It can be read for as long as the frame holds it.
    bool get(CapturedFrame& frame) const;

    /// When pictures came.
    [[nodiscard]] ChangeTimes& arrivals() { return arrivals_; }

    /// Waits until a picture is there. False when `deadline` passes or `give_up`, asked every
    /// 50 ms, returns true.
    bool wait_for_first(SteadyClock::time_point deadline,
                        const std::function<bool()>& give_up) const;

  private:
    using Buffer = std::vector<uint8_t>;
    /// Where the buffers come back to; outlives this object for as long as one is borrowed.
    struct Pool {
        std::mutex mutex;
        std::vector<std::unique_ptr<Buffer>> free;  ///< guarded by `mutex`
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
    mutable std::mutex mutex_;  ///< guards everything below
    mutable std::condition_variable arrived_;
    Picture latest_;
    ChangeTimes arrivals_;  ///< has a guard of its own
};

}  // namespace ox
