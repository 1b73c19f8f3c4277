#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "launcher/audio_assembler.h"
#include "launcher/frame_assembler.h"
#include "launcher/options.h"

struct AVPacket;

namespace ox::launcher {

/// Writes access units, and frames of sound if wanted, as they came, not re-encoded, to a Matroska
/// file with their capture times. The file begins with the first keyframe. `write_audio` may be
/// called by another thread than the other functions.
class StreamRecorder {
  public:
    StreamRecorder();
    ~StreamRecorder();
    StreamRecorder(const StreamRecorder&) = delete;
    StreamRecorder& operator=(const StreamRecorder&) = delete;

    /// What the file is to hold.
    struct Tracks {
        Codec codec = Codec::H264;
        bool sound = false;
    };

    /// Creates the file. False, with a text for the user in `error`, when that fails.
    bool open(const std::string& path, const Tracks& tracks, std::string& error);

    /// Adds one access unit; those before the first keyframe are left out. False on a failure,
    /// after which nothing more is written; `error` tells it.
    bool write(const AssembledFrame& frame);

    /// Adds one frame of sound; those from before the first picture are left out.
    void write_audio(const AudioFrame& frame);

    /// Completes the file. False, with `error` set, when it is not whole or holds no frame.
    bool finish();

    [[nodiscard]] uint64_t frames() const;
    [[nodiscard]] uint64_t audio_frames() const;
    [[nodiscard]] std::string error() const;

  private:
    struct Impl;
    bool fail(const std::string& what);
    bool write_header(const AssembledFrame& keyframe);
    bool write_packet(AVPacket& packet, int stream, int64_t ms);
    int64_t presentation_ms(const AssembledFrame& frame);

    mutable std::mutex mutex_;
    std::unique_ptr<Impl> impl_;  ///< guarded by mutex_, as all that follows
    uint64_t frames_ = 0;
    uint64_t audio_frames_ = 0;
    std::string error_;
};

}  // namespace ox::launcher
