#include "video/portal/latest_picture.h"

#include <algorithm>
#include <utility>

namespace ox {
namespace {

constexpr size_t kPixelBytes = 4;
constexpr size_t kMaxFree = 2;  // one picture is the latest, one is on loan

}  // namespace

LatestPicture::LatestPicture() : pool_(std::make_shared<Pool>()) {
    const MutexLock lock(pool_->mutex);
    pool_->free.reserve(kMaxFree);  // so that returning a buffer never fails
}

uint32_t LatestPicture::width() const {
    const MutexLock lock(mutex_);
    return latest_.width;
}

uint32_t LatestPicture::height() const {
    const MutexLock lock(mutex_);
    return latest_.height;
}

std::unique_ptr<LatestPicture::Buffer> LatestPicture::take_buffer(size_t bytes) const {
    std::unique_ptr<Buffer> buffer;
    {
        const MutexLock lock(pool_->mutex);
        if (!pool_->free.empty()) {
            buffer = std::move(pool_->free.back());
            pool_->free.pop_back();
        }
    }
    // A buffer of another size is replaced.
    if (!buffer || buffer->size() != bytes) {
        buffer = std::make_unique<Buffer>();
        resize_with_slack(*buffer, bytes);
    }
    return buffer;
}

std::shared_ptr<const uint8_t> LatestPicture::share(std::unique_ptr<Buffer> buffer,
                                                    std::shared_ptr<Pool> pool) {
    const uint8_t* pixels = buffer->data();
    return {pixels, [owned = std::move(buffer), to = std::move(pool)](const uint8_t*) mutable {
                const MutexLock lock(to->mutex);
                if (to->free.size() < kMaxFree) to->free.push_back(std::move(owned));
            }};
}

void LatestPicture::store(uint32_t width, uint32_t height,
                          const std::function<void(uint8_t*)>& fill) {
    auto buffer = take_buffer(size_t{width} * height * kPixelBytes);
    fill(buffer->data());
    Picture picture{.pixels = share(std::move(buffer), pool_),
                    .width = width,
                    .height = height,
                    .content = next_content()};
    {
        const MutexLock lock(mutex_);
        std::swap(latest_, picture);
    }
    arrivals_.note(SteadyClock::now());
    arrived_.notify_all();
}

bool LatestPicture::get(CapturedFrame& frame) const {
    Picture picture;
    {
        const MutexLock lock(mutex_);
        picture = latest_;
    }
    if (!picture.pixels) return false;
    frame.data.clear();
    frame.lent = std::move(picture.pixels);
    frame.width = picture.width;
    frame.height = picture.height;
    frame.timestamp = 0;
    frame.content = picture.content;
    return true;
}

bool LatestPicture::wait_for_first(SteadyClock::time_point deadline,
                                   const std::function<bool()>& cancelled) const {
    constexpr std::chrono::milliseconds kPollPeriod{50};
    for (;;) {
        const auto poll_at = std::min(deadline, SteadyClock::now() + kPollPeriod);
        {
            MutexLock lock(mutex_);
            while (!latest_.pixels) {
                if (lock.wait_until(arrived_, poll_at) == std::cv_status::timeout) break;
            }
            if (latest_.pixels) return true;
        }
        if (SteadyClock::now() >= deadline || cancelled()) return false;
    }
}

}  // namespace ox
