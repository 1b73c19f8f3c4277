#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "launcher/frame_assembler.h"
#include "launcher/options.h"

namespace ox::launcher {

/// Writes access units as they came, not re-encoded, to a Matroska file with their capture times.
/// The file begins with the first keyframe. Used by one thread.
class StreamRecorder {
  public:
    StreamRecorder();
    ~StreamRecorder();
    StreamRecorder(const StreamRecorder&) = delete;
    StreamRecorder& operator=(const StreamRecorder&) = delete;

    /// Creates the file. False, with a text for the user in `error`, when that fails.
    bool open(const std::string& path, Codec codec, std::string& error);

    /// Adds one access unit; those before the first keyframe are left out. False on a failure,
    /// after which nothing more is written; `error` tells it.
    bool write(const AssembledFrame& frame);

    /// Completes the file. False, with `error` set, when it is not whole or holds no frame.
    bool finish();

    [[nodiscard]] uint64_t frames() const { return frames_; }
    [[nodiscard]] const std::string& error() const { return error_; }

  private:
    struct Impl;
    bool fail(const std::string& what);
    bool write_header(const AssembledFrame& keyframe);
    int64_t presentation_ms(const AssembledFrame& frame);

    std::unique_ptr<Impl> impl_;
    uint64_t frames_ = 0;
    std::string error_;
};

}  // namespace ox::launcher
