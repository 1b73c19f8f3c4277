#pragma once

#include <string>

namespace ox {

/// Sends libav's own warnings and errors to the log, at level DEBUG, instead of to standard error.
/// Process-wide; later calls do nothing.
void route_libav_log();

/// Collects libav's warnings and errors on this thread while it lives, the first few kilobytes of
/// them, whatever the log's level. Needs `route_libav_log`. One at a time per thread.
class LibavLogTape {
  public:
    LibavLogTape();
    ~LibavLogTape();
    LibavLogTape(const LibavLogTape&) = delete;
    LibavLogTape& operator=(const LibavLogTape&) = delete;

    /// As libav wrote it, without the names of its objects.
    [[nodiscard]] const std::string& text() const { return text_; }
    void append(const char* words);

  private:
    std::string text_;
};

}  // namespace ox
