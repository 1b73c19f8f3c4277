#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

#include "launcher/frame_queue.h"
#include "launcher/media_socket.h"
#include "launcher/probe_timer.h"
#include "launcher/video_receiver.h"

namespace ox::launcher {

/// What the receiving thread reports beside the stream's own statistics.
struct ReceiveSnapshot {
    ReceiveStats stream;
    uint64_t kernel_drops = 0;
    uint64_t queue_drops = 0;  ///< frames that a full decoder queue refused
    bool broken = false;       ///< the socket failed
};

/// The receiving thread: probes until media comes (and again when it pauses), turns datagrams into
/// frames and hands these to the decoder's queue. Owned by the session, which may read `snapshot`
/// from its own thread.
class ReceiveWorker {
  public:
    /// Called on the receiving thread when a keyframe must be asked for.
    using RequestSink = std::function<void(const KeyframeRequest&)>;

    /// `socket` and `queue` outlive the worker; the socket is the worker's until `stop`.
    ReceiveWorker(MediaSocket& socket, FrameQueue& queue,
                  std::span<const uint8_t, PacketOpener::kKeyBytes> key,
                  const VideoReceiver::Config& config, RequestSink request_keyframe);
    ~ReceiveWorker() { stop(); }
    ReceiveWorker(const ReceiveWorker&) = delete;
    ReceiveWorker& operator=(const ReceiveWorker&) = delete;

    void start();
    /// Ends the thread within one poll period (5 ms). Safe to call twice.
    void stop();

    [[nodiscard]] ReceiveSnapshot snapshot() const;

  private:
    void run(const std::stop_token& stop);
    void hand_out_frames();

    MediaSocket& socket_;
    FrameQueue& queue_;
    VideoReceiver receiver_;        ///< receiving thread
    RequestSink request_keyframe_;  ///< receiving thread
    ProbeTimer probes_;             ///< receiving thread
    uint64_t queue_drops_ = 0;      ///< receiving thread
    mutable std::mutex mutex_;
    ReceiveSnapshot snapshot_;  ///< guarded by mutex_
    std::jthread thread_;
};

}  // namespace ox::launcher
