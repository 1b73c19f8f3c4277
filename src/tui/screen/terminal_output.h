#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace ox::tui {

/// Writes bytes to a terminal, pipe, socket or file that may be slow, full, broken or closed,
/// without ever waiting for it. What is not taken at once is kept. An output that fails loses what
/// it was given. Never raises SIGPIPE. Used by one thread at a time.
class TerminalOutput {
  public:
    /// Takes an own handle on what `fd` refers to, so that `fd`'s modes, which other processes may
    /// share, stay as they are. A closed `fd` gives an output that drops everything.
    explicit TerminalOutput(int fd);

    /// Appends to what is waiting, without a limit of its own.
    void add(std::string_view bytes) {
        if (fd_) waiting_.append(bytes);
    }
    /// Bytes that were not taken yet.
    [[nodiscard]] size_t waiting() const { return waiting_.size(); }
    /// Forgets what is waiting; of what was already begun, the rest is lost.
    void drop() { waiting_.clear(); }

    /// Writes as much of what is waiting as the output takes at once.
    void flush();

    /// Same, for an output that is slow: goes on until all is written or `limit` has passed.
    void flush_within(std::chrono::milliseconds limit);

    /// The own handle, -1 when there is none; for asking what it refers to.
    [[nodiscard]] int fd() const { return fd_.get(); }

  private:
    enum class Kind { Plain, Socket };

    // Writes once; false when the output takes nothing now.
    bool write_some();

    UniqueFd fd_;
    Kind kind_ = Kind::Plain;
    bool shared_handle_ = true;
    std::string waiting_;
};

/// Whole lines for a `TerminalOutput`: keeps up to 64 KiB, lines beyond that are lost whole.
class LineOutput {
  public:
    explicit LineOutput(int fd) : output_(fd) {}

    /// Appends `line` and a newline to what is waiting.
    void add(std::string_view line);
    void flush() { output_.flush(); }
    void flush_within(std::chrono::milliseconds limit) { output_.flush_within(limit); }

  private:
    TerminalOutput output_;
};

}  // namespace ox::tui
