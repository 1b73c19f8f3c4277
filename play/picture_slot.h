#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "base/mutex.h"
#include "launcher/client/av_handles.h"
#include "launcher/client/video_decoder.h"

namespace ox::play {

/// A decoded picture, kept beyond its callback.
struct Picture {
    launcher::AvPtr<AVFrame> image;  ///< null: none
    uint64_t timestamp = 0;          ///< capture time on the agent's clock in us, 0 = unknown
};

/// The newest picture on its way from the decoding thread to the window's. Any thread.
class PictureSlot {
  public:
    /// Replaces a picture that was not taken. True when there was none.
    bool put(const launcher::DecodedPicture& decoded) {
        Picture picture{launcher::AvPtr<AVFrame>(av_frame_clone(&decoded.image)),
                        decoded.timestamp};
        if (!picture.image) return false;
        const MutexLock lock(mutex_);
        std::swap(newest_, picture);
        if (picture.image) ++dropped_;
        return !picture.image;
    }

    /// The newest picture that was not taken yet, if any.
    Picture take() {
        const MutexLock lock(mutex_);
        return std::exchange(newest_, {});
    }

    /// Pictures that a newer one replaced before they were taken.
    [[nodiscard]] uint64_t dropped() const {
        const MutexLock lock(mutex_);
        return dropped_;
    }

  private:
    mutable Mutex mutex_;
    Picture newest_ OX_GUARDED_BY(mutex_);
    uint64_t dropped_ OX_GUARDED_BY(mutex_) = 0;
};

}  // namespace ox::play
