#pragma once

#include <cstddef>
#include <cstdint>

namespace ox {

/// Notices a capture that delivers nothing but black: looks at a patch in the upper left corner of
/// each picture and says once per run of black pictures that the run has become suspicious.
class BlackFrameDetector {
  public:
    static constexpr uint32_t kWarnAfter = 120;  ///< black pictures in a row

    /// Looks at the first 32 rows and their first 64 units of four bytes, as far as they lie inside
    /// the picture; the fourth byte of a unit does not count. `rows` holds `height` rows of
    /// `row_bytes` pixel bytes, `stride` bytes apart. True when the warning is due.
    bool observe(const uint8_t* rows, size_t stride, size_t row_bytes, uint32_t height);

    /// The run goes on since the warning, and nothing but a pointer was lit anywhere in the picture
    /// when that was looked at, which it is with every `kWarnAfter`th of the run.
    [[nodiscard]] bool is_black() const { return all_black_; }

  private:
    uint64_t black_frames_ = 0;
    bool all_black_ = false;
};

}  // namespace ox
