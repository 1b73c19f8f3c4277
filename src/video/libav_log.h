#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace ox {

/// Sends libav's own warnings and errors to the log, at level DEBUG, instead of to standard error.
/// Process-wide; later calls do nothing.
void route_libav_log();

/// Collects libav's errors on this thread while it lives, the first few kilobytes of them, whatever
/// the log's level; without allocating, so one can run for every picture. Its warnings, harmless
/// remarks for the most part, are not among them. Needs `route_libav_log`. One at a time per
/// thread.
class LibavLogTape {
  public:
    LibavLogTape();
    ~LibavLogTape();
    LibavLogTape(const LibavLogTape&) = delete;
    LibavLogTape& operator=(const LibavLogTape&) = delete;

    /// As libav wrote it, without the names of its objects.
    [[nodiscard]] std::string text() const { return {text_.data(), size_}; }
    void append(std::string_view words);

  private:
    std::array<char, 4096> text_{};
    size_t size_ = 0;
};

}  // namespace ox
