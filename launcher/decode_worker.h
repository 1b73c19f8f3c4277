#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "launcher/frame_queue.h"
#include "launcher/frame_stamp.h"
#include "launcher/latency_histogram.h"
#include "launcher/options.h"
#include "launcher/stream_recorder.h"
#include "launcher/video_decoder.h"

namespace ox::launcher {

/// What has become of the frames that reached the decoder.
struct DecodeStats {
    uint64_t frames_decoded = 0;
    uint64_t decode_errors = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t first_frame_id = 0;
    uint32_t last_frame_id = 0;
    uint64_t first_decoded_us = 0;
    uint64_t last_decoded_us = 0;
    LatencyHistogram arrival_latency;  ///< capture to the frame's last needed packet
    LatencyHistogram latency;          ///< capture to decoded picture
    uint64_t without_latency = 0;      ///< no capture time, or not on this machine's clock
    StampChecker::Report stamps;
    uint64_t frames_recorded = 0;
    uint64_t audio_frames_recorded = 0;
};

/// The decoding thread: records, decodes and measures what the queue brings, until that is closed
/// and empty. Owned by the session, which may read `stats` at any time.
class DecodeWorker {
  public:
    struct Config {
        Codec codec = Codec::H264;
        std::string save_stream;  ///< empty: no recording
        bool record_sound = false;
        bool keep_last_picture = false;
        bool check_stamps = false;
    };

    explicit DecodeWorker(FrameQueue& queue);
    ~DecodeWorker();
    DecodeWorker(const DecodeWorker&) = delete;
    DecodeWorker& operator=(const DecodeWorker&) = delete;

    /// Opens decoder and recording. False, with a text for the user in `error`, on failure.
    bool open(const Config& config, std::string& error);
    void start();
    /// Waits until everything in the queue, which the caller has closed, is worked off.
    void join();

    /// Adds sound to the recording, if there is one. Any thread, until `finish_recording`.
    void record_audio(const AudioFrame& frame) { recorder_.write_audio(frame); }

    [[nodiscard]] DecodeStats stats() const;

    /// After `join`: completes the recording; false with a text for the user when it failed.
    bool finish_recording(std::string& error);
    /// After `join`: writes the last picture as PNG; false with a text for the user on failure.
    bool save_last_picture(const std::string& path, std::string& error) const;

  private:
    struct PictureHolder;

    void run();
    void on_picture(const DecodedPicture& picture);

    FrameQueue& queue_;
    Config config_;
    VideoDecoder decoder_;                         ///< decoding thread
    StreamRecorder recorder_;                      ///< decoding thread, but for the sound
    StampChecker stamps_;                          ///< decoding thread
    std::unique_ptr<PictureHolder> last_picture_;  ///< decoding thread
    mutable std::mutex mutex_;
    DecodeStats stats_;  ///< guarded by mutex_
    std::jthread thread_;
};

}  // namespace ox::launcher
