#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

#include "launcher/frame_assembler.h"

namespace ox::launcher {

/// Bounded queue between the receiving and the decoding thread. A full queue refuses: the receiver
/// never waits for the decoder.
class FrameQueue {
  public:
    explicit FrameQueue(size_t capacity) : capacity_(capacity) {}

    /// False when full or closed; `frame` is then left as it was.
    bool push(AssembledFrame&& frame) {
        {
            const std::lock_guard lock(mutex_);
            if (closed_ || frames_.size() >= capacity_) return false;
            frames_.push_back(std::move(frame));
        }
        wake_.notify_one();
        return true;
    }

    /// Waits for a frame; nothing once the queue is closed and empty.
    std::optional<AssembledFrame> pop() {
        std::unique_lock lock(mutex_);
        wake_.wait(lock, [this] { return closed_ || !frames_.empty(); });
        if (frames_.empty()) return std::nullopt;
        AssembledFrame frame = std::move(frames_.front());
        frames_.pop_front();
        return frame;
    }

    /// Takes no more frames; those inside can still be popped.
    void close() {
        {
            const std::lock_guard lock(mutex_);
            closed_ = true;
        }
        wake_.notify_all();
    }

  private:
    const size_t capacity_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<AssembledFrame> frames_;  ///< guarded by mutex_
    bool closed_ = false;                ///< guarded by mutex_
};

}  // namespace ox::launcher
