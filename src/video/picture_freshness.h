#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "base/clock.h"

namespace ox {

/// Decides when a picture has to be fetched again, where the screen announces its changes. Some
/// drivers announce nothing while a game flips whole pictures; so pictures are fetched periodically
/// all the same, and a screen caught changing unannounced is not trusted again. Pure.
class PictureFreshness {
  public:
    static constexpr std::chrono::milliseconds kCheckPeriod{100};

    enum class Need {
        Nothing,  ///< the last picture is current
        Fetch,
        Check,  ///< fetch, and call `found_change` if it differs from the last one
    };

    Need next(uint64_t announced, SteadyClock::time_point now);

    /// The picture was fetched; `announced` is the number from before.
    void fetched(uint64_t announced, SteadyClock::time_point now);

    void reset() { seen_.reset(); }

    /// A check found a change. Its announcement may be late; if none comes before the next check is
    /// due, the screen is no longer trusted.
    void found_change(SteadyClock::time_point now);

    [[nodiscard]] bool trusted() const { return trusted_; }

  private:
    bool trusted_ = true;
    std::optional<uint64_t> seen_;  // announced at the last fetch; none: no picture
    SteadyClock::time_point fetched_at_{};
    std::optional<SteadyClock::time_point> suspected_at_;
    uint64_t suspected_count_ = 0;
};

/// At the speed of memory. `rows` has `height` rows of `row_bytes`, `stride` bytes apart.
[[nodiscard]] uint64_t hash_picture(const uint8_t* rows, size_t stride, size_t row_bytes,
                                    uint32_t height);

}  // namespace ox
