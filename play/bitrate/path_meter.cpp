#include "play/bitrate/path_meter.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace ox::play {
namespace {

constexpr uint64_t kBinUs = 50'000;
constexpr uint64_t kReceivedBins = 5;
constexpr int kSteadyBins = 4;
constexpr uint64_t kLossBins = 20;
constexpr uint64_t kBurstBins = 30;
constexpr uint64_t kBaseBucketUs = 5'000'000;
/// Packets that are later than this behind their picture's first one count as lost.
constexpr uint64_t kCloseAfterUs = 100'000;
/// The agent sends what amounts to 24 ms at once, unpaced.
constexpr double kUnpacedUs = 20'000;
constexpr double kFullPacketBytes = kHeaderBytes + kVideoPayloadBytes + 16;
constexpr double kFewestPoints = 20;
constexpr double kUnlimitedKbps = 1e6;
constexpr double kMuchJitterUs = 3'000;
constexpr double kFewOvertaken = 0.02;
// A queue grows or drains; a delay that stays is the path's own.
constexpr int64_t kLevelBandUs = 10'000;
constexpr uint64_t kLevelUs = 3'000'000;
constexpr double kLevelLoss = 0.03;

int32_t distance(uint32_t from, uint32_t to) {
    return static_cast<int32_t>(to - from);
}

void smooth(double& mean, double value) {
    mean = mean == 0 ? value : mean + (value - mean) / 16;
}

bool is_within(uint64_t number, uint64_t newest, uint64_t count) {
    return number <= newest && number + count > newest;
}

}  // namespace

void PathMeter::on_packet(const PacketHeader& header, size_t bytes, uint64_t arrival_us) {
    const MutexLock lock(mutex_);
    bin_at(arrival_us).bytes += static_cast<double>(bytes);
    if (!started_ || std::abs(distance(newest_, header.frame_id)) >= int32_t{kPictures}) {
        // The beginning, or a jump of the numbers; no gap of losses.
        started_ = true;
        stamped_ = false;
        pictures_ = {};
        newest_ = next_close_ = header.frame_id;
    }
    if (distance(newest_, header.frame_id) > 0) newest_ = header.frame_id;
    if (distance(next_close_, header.frame_id) < 0) return;
    Picture& picture = picture_of(header, arrival_us);
    const bool first = picture.bytes == 0;
    picture.bytes = bytes;
    add_delay(header, first, arrival_us);
    if ((header.flags & packet_flags::FEC_PACKET) != 0) return;
    ++picture.arrived;
    Bin& bin = bin_at(arrival_us);
    bin.packets += 1;
    if (header.index < picture.highest) bin.overtaken += 1;
    picture.highest = std::max(picture.highest, header.index);
    if (header.index + 1 == header.count || header.index * interval_us_ > kUnpacedUs * packets_)
        return;
    if ((header.flags & packet_flags::KEYFRAME) != 0) return;  // longer than what is sent at once
    const double x = header.index;
    const auto y = static_cast<double>(static_cast<int64_t>(arrival_us - picture.first_us));
    Spacing& spacing = picture.spacing;
    spacing.n += 1;
    spacing.x += x;
    spacing.y += y;
    spacing.xx += x * x;
    spacing.xy += x * y;
    spacing.yy += y * y;
}

PathMeter::Picture& PathMeter::picture_of(const PacketHeader& header, uint64_t arrival_us) {
    Picture& picture = pictures_[header.frame_id % kPictures];
    if (!picture.used || picture.id != header.frame_id) {
        picture = {};
        picture.used = true;
        picture.id = header.frame_id;
        picture.count = header.count;
        picture.first_us = arrival_us;
    }
    return picture;
}

PathMeter::Bin& PathMeter::bin_at(uint64_t now_us) {
    const uint64_t number = now_us / kBinUs;
    Bin& bin = bins_[number % kBins];
    if (bin.number != number) {
        bin = {};
        bin.number = number;
    }
    return bin;
}

// From the time stamp, or for a picture whose first packet is missing or late from the ones before.
void PathMeter::add_delay(const PacketHeader& header, bool first, uint64_t arrival_us) {
    uint64_t taken_us = header.timestamp;
    if (taken_us != 0) {
        const int32_t pictures = distance(stamped_id_, header.frame_id);
        if (stamped_ && pictures > 0) {
            const auto elapsed = static_cast<double>(static_cast<int64_t>(taken_us - stamp_us_));
            if (elapsed > 0) smooth(interval_us_, elapsed / pictures);
        }
        if (!stamped_ || pictures > 0) {
            stamped_ = true;
            stamped_id_ = header.frame_id;
            stamp_us_ = taken_us;
        }
    } else if (first && stamped_) {
        taken_us = stamp_us_ + static_cast<uint64_t>(static_cast<int64_t>(
                                   interval_us_ * distance(stamped_id_, header.frame_id)));
    } else {
        return;
    }
    const auto delay = static_cast<int64_t>(arrival_us - taken_us);
    Bin& bin = bin_at(arrival_us);
    bin.least_delay_us = std::min(bin.least_delay_us, delay);
    const uint64_t number = arrival_us / kBaseBucketUs;
    BaseBucket& bucket = base_[number % kBaseBuckets];
    if (bucket.number != number) bucket = {.number = number};
    bucket.least_delay_us = std::min(bucket.least_delay_us, delay);
}

PathSample PathMeter::take_sample(uint64_t now_us, double decode_ms) {
    const MutexLock lock(mutex_);
    close_pictures(now_us);
    const uint64_t newest = now_us / kBinUs - 1;  // the latest whole bin
    PathSample sample{
        .at_us = now_us, .decode_ms = decode_ms, .frame_interval_ms = interval_us_ / 1000};
    double expected = 0;
    double lost = 0;
    for (const Bin& bin : bins_) {
        constexpr double kBitsPerMs = 8e3 / kBinUs;
        const double kbps = bin.bytes * kBitsPerMs;
        if (is_within(bin.number, newest, kReceivedBins)) {
            sample.received_kbps += kbps / kReceivedBins;
        }
        if (!is_within(bin.number, newest + 1, kLossBins)) continue;
        expected += bin.expected;
        lost += bin.lost;
    }
    sample.lost = expected > 0 ? lost / expected : 0;
    sample.sent_kbps = picture_bytes_ * 8000 / interval_us_;
    fill_burst(sample, newest);
    fill_queue(sample, newest);
    return sample;
}

// In order, up to the first picture of which more may come.
void PathMeter::close_pictures(uint64_t now_us) {
    if (!started_) return;
    const auto is_open = [&](const Picture& picture) {
        return picture.first_us + kCloseAfterUs > now_us;
    };
    uint32_t last = newest_;
    while (distance(next_close_, last) >= 0) {
        const Picture& picture = pictures_[last % kPictures];
        if (picture.used && picture.id == last && !is_open(picture)) break;
        --last;
    }
    Bin& bin = bin_at(now_us);
    for (; distance(next_close_, last) >= 0; ++next_close_) {
        Picture& picture = pictures_[next_close_ % kPictures];
        if (picture.used && picture.id == next_close_) {
            close(picture, bin);
            picture.used = false;
        } else {
            bin.expected += packets_;  // nothing of it came
            bin.lost += packets_;
        }
    }
}

void PathMeter::close(const Picture& picture, Bin& bin) {
    const double count = picture.count;
    bin.expected += count;
    bin.lost += std::max(0.0, count - picture.arrived);
    smooth(packets_, count);
    // A picture of one packet is sent twice; the last packet of others is half full.
    smooth(picture_bytes_, picture.count == 1 ? 2.0 * static_cast<double>(picture.bytes)
                                              : (count - 0.5) * kFullPacketBytes);
    const Spacing& spacing = picture.spacing;
    if (spacing.n < 2) return;
    bin.spacing.n += spacing.n - 1;
    bin.spacing.xx += spacing.xx - spacing.x * spacing.x / spacing.n;
    bin.spacing.xy += spacing.xy - spacing.x * spacing.y / spacing.n;
    bin.spacing.yy += spacing.yy - spacing.y * spacing.y / spacing.n;
}

// Jitter that is independent of the place in the picture disturbs the slope of the line, but does
// not bias it where packets overtake each other. Where they wait for each other it does.
void PathMeter::fill_burst(PathSample& sample, uint64_t newest) const {
    Spacing sum;
    double packets = 0;
    double overtaken = 0;
    for (const Bin& bin : bins_) {
        if (!is_within(bin.number, newest + 1, kBurstBins)) continue;
        packets += bin.packets;
        overtaken += bin.overtaken;
        sum.n += bin.spacing.n;
        sum.xx += bin.spacing.xx;
        sum.xy += bin.spacing.xy;
        sum.yy += bin.spacing.yy;
    }
    if (sum.n < kFewestPoints || sum.xx <= 0) return;
    const double slope = sum.xy / sum.xx;  // us per packet
    const double variance = std::max(0.0, sum.yy - slope * sum.xy) / (sum.n - 1);
    sample.burst_hidden =
        variance > kMuchJitterUs * kMuchJitterUs && overtaken < kFewOvertaken * packets;
    const double error = 2 * std::sqrt(variance / sum.xx);
    const auto rate = [](double us_per_packet) {
        const double least = kFullPacketBytes * 8000 / kUnlimitedKbps;
        return kFullPacketBytes * 8000 / std::max(us_per_packet, least);
    };
    sample.burst_kbps = rate(slope);
    sample.burst_low_kbps = rate(slope + error);
    sample.burst_high_kbps = rate(slope - error);
}

void PathMeter::fill_queue(PathSample& sample, uint64_t newest) {
    int64_t delay = INT64_MAX;
    int bins = 0;
    for (const Bin& bin : bins_) {
        if (!is_within(bin.number, newest, kReceivedBins)) continue;
        delay = std::min(delay, bin.least_delay_us);
        bins += bin.bytes > 0 ? 1 : 0;
    }
    if (delay != INT64_MAX) {
        adopt_level(sample, delay);
        const double ms = std::max(0.0, static_cast<double>(delay - base_us(sample.at_us)) / 1000);
        // What is late after a pause was held up together; a queue lets packets through all along.
        const bool steady = bins >= kSteadyBins || interval_us_ > kBinUs;
        queue_ms_ = steady ? ms : std::min(queue_ms_, ms);
    }
    sample.queue_ms = queue_ms_;
}

int64_t PathMeter::base_us(uint64_t now_us) const {
    int64_t base = INT64_MAX;
    for (const BaseBucket& bucket : base_) {
        if (is_within(bucket.number, now_us / kBaseBucketUs, kBaseBuckets)) {
            base = std::min(base, bucket.least_delay_us);
        }
    }
    return base;
}

void PathMeter::adopt_level(const PathSample& sample, int64_t delay_us) {
    level_low_us_ = std::min(level_low_us_, delay_us);
    level_high_us_ = std::max(level_high_us_, delay_us);
    if (level_high_us_ - level_low_us_ > kLevelBandUs || sample.lost > kLevelLoss) {
        level_low_us_ = level_high_us_ = delay_us;
        level_since_us_ = sample.at_us;
    }
    if (sample.at_us - level_since_us_ < kLevelUs) return;
    base_ = {};
    const uint64_t number = sample.at_us / kBaseBucketUs;
    base_[number % kBaseBuckets] = {.number = number, .least_delay_us = level_low_us_};
    level_since_us_ = sample.at_us;
}

}  // namespace ox::play
