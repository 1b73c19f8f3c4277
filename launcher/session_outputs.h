#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "launcher/client/audio_receiver.h"
#include "launcher/client/video_decoder.h"
#include "launcher/frame_stamp.h"
#include "launcher/options.h"
#include "launcher/stream_recorder.h"
#include "launcher/tone_meter.h"

namespace ox::launcher {

/// A session's recording, its last picture, and its pictures' stamps and sound's pitch. Fed by the
/// decoding and the audio thread, read by the owner after both.
class SessionOutputs {
  public:
    struct Results {
        StampChecker::Report stamps;
        ToneReport sound;
        StreamRecorder::Counts recorded;
    };

    explicit SessionOutputs(const Options& options);
    ~SessionOutputs();
    SessionOutputs(const SessionOutputs&) = delete;
    SessionOutputs& operator=(const SessionOutputs&) = delete;

    /// Creates the recording. False, with a text for the user in `error`, on failure.
    bool open(std::string& error);

    // Decoding thread.
    void on_frame(const AssembledFrame& frame) { recorder_.write(frame); }
    void on_picture(const DecodedPicture& picture);
    // Audio thread.
    void on_audio(const AudioFrame& frame) { recorder_.write_audio(frame); }
    void on_samples(std::span<const int16_t> pcm) { meter_.add(pcm); }

    /// Also writes the last picture as PNG. False, with a text for the user in `error`, on failure.
    bool finish(std::string& error);
    [[nodiscard]] Results results() const;

  private:
    struct PictureHolder;

    const Options options_;
    StreamRecorder recorder_;
    StampChecker stamps_;
    ToneMeter meter_;
    std::unique_ptr<PictureHolder> last_;
};

}  // namespace ox::launcher
