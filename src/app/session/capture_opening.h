#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

#include "video/capture.h"

namespace ox {

/// Opens a capture on a thread of its own, since that may take as long as the PC's owner needs for
/// an answer. Owned and asked by one thread. Destroying it ends the attempt.
class CaptureOpening {
  public:
    /// Makes and initialises a capture, on the thread; asks the predicate whether it is still
    /// wanted. The result may be null, or a capture whose `init` had no success.
    struct Result {
        std::unique_ptr<ICapture> capture;
        bool works = false;
    };
    /// Makes and initialises a capture, on the thread. The predicate tells that it is not wanted
    /// any more; a copy of it may be kept.
    using Open = std::function<Result(const std::function<bool()>& cancelled)>;

    /// `cancelled` is a further reason to end it, asked from any thread.
    CaptureOpening(Open open, std::function<bool()> cancelled);
    ~CaptureOpening();
    CaptureOpening(const CaptureOpening&) = delete;
    CaptureOpening& operator=(const CaptureOpening&) = delete;

    [[nodiscard]] bool done() const { return done_; }
    /// What came of it. Once, and only when it is done.
    Result take();

  private:
    std::shared_ptr<std::atomic<bool>> unwanted_ = std::make_shared<std::atomic<bool>>(false);
    std::atomic<bool> done_{false};
    Result result_;  ///< the thread's until `done_`, then the owner's
    std::thread thread_;
};

}  // namespace ox
