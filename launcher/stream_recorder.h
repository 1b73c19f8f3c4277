#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "base/mutex.h"
#include "launcher/client/audio_receiver.h"
#include "launcher/client/control_messages.h"
#include "launcher/client/frame_assembler.h"

struct AVPacket;

namespace ox::launcher {

/// Writes access units, and sound if wanted, as received to a Matroska file with their capture
/// times. The file begins with the first keyframe. Any thread may call `write_audio`.
class StreamRecorder {
  public:
    struct Tracks {
        Codec codec = Codec::H264;
        bool sound = false;
    };
    struct Counts {
        uint64_t frames = 0;
        uint64_t audio_frames = 0;
    };

    StreamRecorder();
    ~StreamRecorder();
    StreamRecorder(const StreamRecorder&) = delete;
    StreamRecorder& operator=(const StreamRecorder&) = delete;

    /// False, with a text for the user in `error`. Until then the functions below do nothing.
    bool open(const std::string& path, const Tracks& tracks, std::string& error);

    /// Nothing before the first keyframe, nor after a failure, which `finish` reports.
    void write(const AssembledFrame& frame);
    /// Adds one frame of sound; those from before the first picture are left out.
    void write_audio(const AudioFrame& frame);
    /// False, with a text for the user in `error`, when the file is incomplete or empty.
    bool finish(std::string& error);

    [[nodiscard]] Counts counts() const;

  private:
    struct Impl;
    bool fail(const std::string& what) OX_REQUIRES(mutex_);
    bool write_header(const AssembledFrame& keyframe) OX_REQUIRES(mutex_);
    bool write_packet(AVPacket& packet, int stream, int64_t ms) OX_REQUIRES(mutex_);
    bool complete_file() OX_REQUIRES(mutex_);
    int64_t presentation_ms(const AssembledFrame& frame) OX_REQUIRES(mutex_);

    mutable Mutex mutex_;
    std::unique_ptr<Impl> impl_ OX_GUARDED_BY(mutex_);
    Counts counts_ OX_GUARDED_BY(mutex_);
    std::string error_ OX_GUARDED_BY(mutex_);
};

}  // namespace ox::launcher
