#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/mutex.h"
#include "transport/packet.h"

namespace ox::play {

/// How the network path and the decoder did lately. Rates are in kbit/s of whole datagrams.
struct PathSample {
    uint64_t at_us = 0;
    double received_kbps = 0;  ///< over 250 ms; 0: nothing arrives
    double recent_kbps =
        0;                  ///< the most in 50 ms of the last 150; of a queue, what it lets through
    double sent_kbps = 0;   ///< what the pictures amounted to when they were sent
    double burst_kbps = 0;  ///< the path's rate, by the spacing of one picture's packets over
                            ///< 1.5 s; 0: unknown
    double burst_low_kbps = 0;   ///< the bounds of its
    double burst_high_kbps = 0;  ///< confidence interval
    bool burst_hidden = false;   ///< jitter spreads the pictures: the path may be much faster
    double lost = 0;             ///< share of the data packets over the last second, 0..1
    double queue_ms = 0;         ///< least one-way delay in 250 ms, above the least of a minute
    double decode_ms = 0;        ///< per picture
    double frame_interval_ms = 0;
};

/// Measures the path from the arrival of the video packets. Clocks of agent and player may differ
/// and drift. Pure, allocates nothing. Any thread.
class PathMeter {
  public:
    /// One opened packet; `bytes` of its datagram, arrival on the player's monotonic clock.
    void on_packet(const PacketHeader& header, size_t bytes, uint64_t arrival_us)
        OX_EXCLUDES(mutex_);

    /// Call some four to ten times a second.
    PathSample take_sample(uint64_t now_us, double decode_ms) OX_EXCLUDES(mutex_);

  private:
    static constexpr size_t kPictures = 64;
    static constexpr size_t kBins = 32;
    static constexpr size_t kBaseBuckets = 12;

    /// Sums for a line through (packet's index, arrival), deviations from the means once closed.
    struct Spacing {
        double n = 0;
        double x = 0;
        double y = 0;
        double xx = 0;
        double xy = 0;
        double yy = 0;
    };
    struct Picture {
        bool used = false;
        uint32_t id = 0;
        uint16_t count = 0;
        uint32_t arrived = 0;  ///< data packets
        uint16_t highest = 0;  ///< index of them
        uint64_t first_us = 0;
        size_t bytes = 0;  ///< of one datagram
        Spacing spacing;
    };
    /// 50 ms.
    struct Bin {
        uint64_t number = 0;
        double bytes = 0;
        double expected = 0;  ///< data packets of the pictures closed in this time
        double lost = 0;
        double packets = 0;    ///< arrived
        double overtaken = 0;  ///< of these, by a later one of their picture
        int64_t least_delay_us = INT64_MAX;
        Spacing spacing;
    };
    struct BaseBucket {
        uint64_t number = 0;
        int64_t least_delay_us = INT64_MAX;
    };

    Picture& picture_of(const PacketHeader& header, uint64_t arrival_us) OX_REQUIRES(mutex_);
    Bin& bin_at(uint64_t now_us) OX_REQUIRES(mutex_);
    void add_delay(const PacketHeader& header, bool first, uint64_t arrival_us) OX_REQUIRES(mutex_);
    void close_pictures(uint64_t now_us) OX_REQUIRES(mutex_);
    void close(const Picture& picture, Bin& bin) OX_REQUIRES(mutex_);
    void fill_burst(PathSample& sample, uint64_t newest) const OX_REQUIRES(mutex_);
    void fill_queue(PathSample& sample, uint64_t newest) OX_REQUIRES(mutex_);
    [[nodiscard]] int64_t base_us(uint64_t now_us) const OX_REQUIRES(mutex_);
    void adopt_level(const PathSample& sample, int64_t delay_us) OX_REQUIRES(mutex_);

    Mutex mutex_;
    std::array<Picture, kPictures> pictures_ OX_GUARDED_BY(mutex_){};
    std::array<Bin, kBins> bins_ OX_GUARDED_BY(mutex_){};
    std::array<BaseBucket, kBaseBuckets> base_ OX_GUARDED_BY(mutex_){};
    bool started_ OX_GUARDED_BY(mutex_) = false;
    uint32_t newest_ OX_GUARDED_BY(mutex_) = 0;  ///< picture
    uint32_t next_close_ OX_GUARDED_BY(mutex_) = 0;
    // Of the latest picture with a time stamp:
    bool stamped_ OX_GUARDED_BY(mutex_) = false;
    uint32_t stamped_id_ OX_GUARDED_BY(mutex_) = 0;
    uint64_t stamp_us_ OX_GUARDED_BY(mutex_) = 0;
    double interval_us_ OX_GUARDED_BY(mutex_) = 1e6 / 60;  ///< smoothed
    double packets_ OX_GUARDED_BY(mutex_) = 0;             ///< of a picture, smoothed
    double picture_bytes_ OX_GUARDED_BY(mutex_) = 0;       ///< smoothed
    double queue_ms_ OX_GUARDED_BY(mutex_) = 0;            ///< latest known
    // A delay that stays the same:
    int64_t level_low_us_ OX_GUARDED_BY(mutex_) = 0;
    int64_t level_high_us_ OX_GUARDED_BY(mutex_) = 0;
    uint64_t level_since_us_ OX_GUARDED_BY(mutex_) = 0;
};

}  // namespace ox::play
