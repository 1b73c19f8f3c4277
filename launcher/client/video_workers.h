#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include "base/mutex.h"
#include "launcher/client/media_socket.h"
#include "launcher/client/timing_stats.h"
#include "launcher/client/video_decoder.h"
#include "launcher/client/video_receiver.h"

namespace ox::launcher {

/// A full queue refuses frames, so that the receiver never waits for the decoder.
class FrameQueue {
  public:
    explicit FrameQueue(size_t capacity) : capacity_(capacity) {}

    /// False when full or closed; `frame` is then unchanged.
    bool push(AssembledFrame&& frame);
    /// Waits for a frame; nothing once the queue is closed and empty.
    std::optional<AssembledFrame> pop();
    /// Refuses further frames; those inside can still be popped.
    void close();

  private:
    const size_t capacity_;
    Mutex mutex_;
    std::condition_variable changed_;
    std::deque<AssembledFrame> frames_ OX_GUARDED_BY(mutex_);
    bool closed_ OX_GUARDED_BY(mutex_) = false;
};

struct ReceiveSnapshot {
    ReceiveStats stream;
    uint64_t kernel_drops = 0;
    uint64_t queue_drops = 0;  ///< frames refused by a full decoder queue
    bool broken = false;       ///< the socket failed
};

/// The receiving thread: sends probes until media arrives (and again when it pauses), turns
/// datagrams into frames and queues these for the decoder. Any thread may call `snapshot`.
class ReceiveWorker {
  public:
    /// Called on the receiving thread when a keyframe must be requested.
    using RequestSink = std::function<void(const KeyframeRequest&)>;
    /// Called on the receiving thread for each decrypted packet, with its datagram's size and its
    /// arrival in the kernel, on the own steady clock in us.
    using PacketObserver =
        std::function<void(const PacketHeader&, size_t bytes, uint64_t arrival_us)>;

    /// `observe` may be empty. `socket` is open; `socket` and `queue` outlive the worker; it alone
    /// uses the socket until `stop`.
    ReceiveWorker(MediaSocket& socket, FrameQueue& queue,
                  std::span<const uint8_t, PacketOpener::kKeyBytes> key,
                  const VideoReceiver::Config& config, RequestSink request_keyframe,
                  PacketObserver observe = {});
    ~ReceiveWorker() { stop(); }
    ReceiveWorker(const ReceiveWorker&) = delete;
    ReceiveWorker& operator=(const ReceiveWorker&) = delete;

    void start();
    /// Ends the thread within one poll period (5 ms). Safe to call twice.
    void stop();

    [[nodiscard]] ReceiveSnapshot snapshot() const;

  private:
    void run(const std::stop_token& stop);
    void on_datagram(std::span<const uint8_t> datagram);
    void queue_frames();

    MediaSocket& socket_;
    FrameQueue& queue_;
    // The receiving thread's:
    VideoReceiver receiver_;
    RequestSink request_keyframe_;
    PacketObserver observe_;
    ProbeTimer probes_;
    uint64_t queue_drops_ = 0;

    mutable Mutex mutex_;
    ReceiveSnapshot snapshot_ OX_GUARDED_BY(mutex_);
    std::jthread thread_;
};

/// What the decoder made of its frames.
struct DecodeStats {
    uint64_t frames_decoded = 0;
    uint64_t decode_errors = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t first_frame_id = 0;
    uint32_t last_frame_id = 0;
    uint64_t first_decoded_us = 0;
    uint64_t last_decoded_us = 0;
    uint64_t decoding_us = 0;  ///< spent on all frames
    const char* decoder = "";  ///< as VideoDecoder::kind
    // Only of frames with a capture time on this machine's clock:
    LatencyHistogram arrival_latency;  ///< capture to the frame's last needed packet
    LatencyHistogram latency;          ///< capture to decoded picture
};

/// Decodes until the queue is closed and empty. Any thread may call `stats`.
class DecodeWorker {
  public:
    /// Called on the decoding thread; may be empty.
    struct Sinks {
        VideoDecoder::Sink picture;
        std::function<void(const AssembledFrame&)> frame;  ///< decoded or not, after its picture
        std::function<void()> begin{};                     ///< before the first frame
        std::function<void()> end{};                       ///< after the last one
    };

    DecodeWorker(FrameQueue& queue, Sinks sinks);
    /// Closes the queue and joins.
    ~DecodeWorker();
    DecodeWorker(const DecodeWorker&) = delete;
    DecodeWorker& operator=(const DecodeWorker&) = delete;

    /// Opens the decoder. False, with a text for the user in `error`, on failure.
    bool open(Codec codec, std::string& error,
              VideoDecoder::Hardware hardware = VideoDecoder::Hardware::Never) {
        return decoder_.open(codec, error, hardware);
    }
    void start();
    /// Waits for the end of the queue, which the caller has closed.
    void join();

    [[nodiscard]] DecodeStats stats() const;

  private:
    void run();
    void on_picture(const DecodedPicture& picture);

    FrameQueue& queue_;
    const Sinks sinks_;
    VideoDecoder decoder_;  ///< the decoding thread's, once started
    mutable Mutex mutex_;
    DecodeStats stats_ OX_GUARDED_BY(mutex_);
    std::jthread thread_;
};

}  // namespace ox::launcher
