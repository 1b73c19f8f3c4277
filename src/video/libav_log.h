#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace ox {

/// Sends libav's own warnings and errors to the log, at level DEBUG, instead of to standard error.
/// Process-wide; later calls do nothing.
void route_libav_log();

/// Collects libav's warnings and errors on this thread while it lives, the first few kilobytes of
/// them, whatever the log's level; without allocating, so one can run for every picture. Needs
/// `route_libav_log`. One at a time per thread.
class LibavLogTape {
  public:
    LibavLogTape();
    ~LibavLogTape();
    LibavLogTape(const LibavLogTape&) = delete;
    LibavLogTape& operator=(const LibavLogTape&) = delete;

    /// As libav wrote it, without the names of its objects.
    [[nodiscard]] std::string text() const { return all_.text(); }
    /// Without the warnings, which are harmless remarks for the most part.
    [[nodiscard]] std::string errors() const { return errors_.text(); }

    /// A line or a part of one; `level` is libav's.
    void append(int level, std::string_view words);

  private:
    struct Words {
        std::array<char, 2048> bytes{};
        size_t size = 0;
        void append(std::string_view words);
        [[nodiscard]] std::string text() const { return {bytes.data(), size}; }
    };
    Words all_;
    Words errors_;
};

}  // namespace ox
