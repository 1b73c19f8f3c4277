#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace ox::tui {

/// Writes lines to a terminal, pipe, socket or file that may be slow, full, broken or closed,
/// without ever waiting for it. What is not taken at once is kept, up to 64 KiB; lines beyond that
/// are lost whole. An output that fails loses what it was given. Never raises SIGPIPE. Used by one
/// thread at a time.
class LineOutput {
  public:
    /// Takes an own handle on what `fd` refers to, so that `fd`'s modes, which other processes may
    /// share, stay as they are. A closed `fd` gives an output that drops everything.
    explicit LineOutput(int fd);

    /// Appends `line` and a newline to what is waiting.
    void add(std::string_view line);

    /// Writes as much of what is waiting as the output takes at once.
    void flush();

    /// Same, for an output that is slow: goes on until all is written or `limit` has passed.
    void flush_within(std::chrono::milliseconds limit);

  private:
    enum class Kind { Plain, Socket };

    // Writes once; false when the output takes nothing now.
    bool write_some();

    UniqueFd fd_;
    Kind kind_ = Kind::Plain;
    std::string waiting_;
};

}  // namespace ox::tui
