#pragma once

#include <cstddef>
#include <cstdint>

namespace ox {

/// Reports, once per run, pictures whose upper left corner is black.
class BlackFrameDetector {
  public:
    static constexpr uint32_t kWarnAfter = 120;  ///< black pictures in a row

    /// Checks the first 32 rows and their first 64 units of four bytes, without the fourth. `rows`
    /// has `height` rows of `row_bytes` pixel bytes, `stride` apart. True when the warning is due.
    bool observe(const uint8_t* rows, size_t stride, size_t row_bytes, uint32_t height);

    /// The run goes on after the warning, and the whole picture, checked at every `kWarnAfter`th of
    /// the run, had nothing lit but perhaps a pointer.
    [[nodiscard]] bool is_black() const { return all_black_; }

  private:
    uint64_t black_frames_ = 0;
    bool all_black_ = false;
};

}  // namespace ox
