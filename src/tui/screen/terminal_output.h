#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace ox::tui {

/// Non-blocking, buffered output to anything, however slow or broken; a failed one loses its data.
/// Never raises SIGPIPE. One thread at a time.
class TerminalOutput {
  public:
    /// Opens its own descriptor, as others may share `fd` and its modes. A closed `fd` drops all.
    explicit TerminalOutput(int fd);

    /// Buffers `bytes`, without a limit.
    void add(std::string_view bytes) {
        if (fd_) buffered_.append(bytes);
    }
    [[nodiscard]] size_t buffered_bytes() const { return buffered_.size(); }
    /// Discards the buffer, even in the middle of what was added.
    void drop() { buffered_.clear(); }

    /// Writes as much as the output accepts without blocking.
    void flush();
    /// Waits for the output, until all is written or `limit` has passed.
    void flush_within(std::chrono::milliseconds limit);

    /// The own descriptor, -1 when there is none.
    [[nodiscard]] int fd() const { return fd_.get(); }

  private:
    enum class Kind { Plain, Socket };

    // Writes once; false when the output accepts nothing now.
    bool write_some();

    UniqueFd fd_;
    Kind kind_ = Kind::Plain;
    bool is_shared_ = true;  // blocking mode and all with `fd`
    std::string buffered_;
};

/// Line-wise output: buffers up to 64 KiB, and drops whole lines beyond that.
class LineOutput {
  public:
    explicit LineOutput(int fd) : output_(fd) {}

    void add(std::string_view line);
    void flush() { output_.flush(); }
    void flush_within(std::chrono::milliseconds limit) { output_.flush_within(limit); }

  private:
    TerminalOutput output_;
};

}  // namespace ox::tui
