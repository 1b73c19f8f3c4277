#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <span>
#include <utility>
#include <vector>

#include "launcher/client/frame_assembler.h"
#include "play/bitrate/bitrate_controller.h"
#include "support/shaped_path.h"
#include "transport/token_bucket.h"

namespace ox::test {

/// Agent, path and player in simulated time: 60 paced pictures a second through a ShapedPath into
/// an assembler, the meter and the controller.
class SimulatedSession {
  public:
    struct Change {
        double at_s = 0;
        uint32_t kbps = 0;
    };

    SimulatedSession(const ShapedPath::Setup& path, uint32_t start_kbps)
        : path_(path), controller_(start_kbps, {}), bitrate_(start_kbps) {}

    void run_until(double seconds) {
        for (; static_cast<double>(due_us_) < seconds * 1e6; due_us_ += 16'667) {
            receive_until(due_us_);
            if (sender_us_ <= due_us_) send_picture(due_us_);
        }
    }

    double need = 1;  ///< size of the pictures, in shares of the bitrate
    double decode_ms = 5;
    uint64_t extra_delay_us = 0;  ///< behind other traffic
    std::vector<Change> changes;
    double longest_stall_s = 0;  ///< between complete pictures, after the first second
    [[nodiscard]] uint32_t target_kbps() const { return controller_.target_kbps(); }

  private:
    static constexpr uint64_t kControlDelayUs = 15'000;
    static constexpr uint64_t kSamplePeriodUs = 100'000;
    static constexpr uint64_t kAgentClockUs = 77'000'000'000;  // ahead of the player's
    static constexpr size_t kOverhead = kHeaderBytes + kTagBytes;

    struct Packet {
        PacketHeader header;
        size_t size = 0;
    };

    static SteadyClock::time_point at(uint64_t us) {
        return SteadyClock::time_point(std::chrono::microseconds(us));
    }

    void send_picture(uint64_t now_us) {
        bool keyframe = picture_++ == 0;
        if (next_bitrate_ && now_us >= next_bitrate_->first) {
            bitrate_ = next_bitrate_->second;
            bucket_.reset();
            next_bitrate_.reset();
            keyframe = true;
        }
        if (!bucket_) bucket_.emplace(uint64_t{bitrate_} * 1500 / 8, at(now_us));
        const double share = keyframe ? 4 : need * (0.75 + 0.5 * chance_(random_));
        const auto bytes = 1 + static_cast<size_t>(bitrate_ * 1000.0 / 8 / 60 * share);
        const size_t count = 1 + (bytes - 1) / kVideoPayloadBytes;
        const size_t parity = keyframe ? (count + 7) / 8 : 0;
        sender_us_ = now_us + 5'000;  // encoded
        for (size_t i = 0; i < count + parity; ++i) {
            const bool last = i + 1 == count;
            PacketHeader header{.stream = kStreamVideo, .frame_id = picture_};
            header.index = static_cast<uint16_t>(i);
            header.count = static_cast<uint16_t>(count);
            if (keyframe) header.flags |= packet_flags::KEYFRAME;
            if (i >= count) header.flags |= packet_flags::FEC_PACKET;
            if (i == 0) header.timestamp = now_us + kAgentClockUs;
            send({header, last ? 1 + (bytes - 1) % kVideoPayloadBytes : kVideoPayloadBytes});
            if (count == 1) send({header, bytes});
        }
    }

    void send(const Packet& packet) {
        const size_t bytes = packet.size + kOverhead;
        const auto wait = bucket_->take(bytes, at(sender_us_)).sleep;
        sender_us_ += 15 + static_cast<uint64_t>(wait.count());
        if (const auto arrival = path_.pass(sender_us_, bytes)) {
            on_way_.emplace(*arrival + extra_delay_us, packet);
        }
    }

    void receive_until(uint64_t now_us) {
        while (!on_way_.empty() && on_way_.begin()->first <= now_us) {
            const auto [at_us, packet] = *on_way_.begin();
            on_way_.erase(on_way_.begin());
            meter_.on_packet(packet.header, packet.size + kOverhead, at_us);
            assembler_.push(packet.header, std::span(payload_).first(packet.size), at_us);
            while (assembler_.pop()) {
                const auto gap = static_cast<double>(at_us - shown_us_) / 1e6;
                if (shown_us_ > 1'000'000) longest_stall_s = std::max(longest_stall_s, gap);
                shown_us_ = at_us;
            }
        }
        if (now_us < sampled_us_ + kSamplePeriodUs) return;
        sampled_us_ = now_us;
        if (const auto kbps = controller_.update(meter_.take_sample(now_us, decode_ms))) {
            changes.push_back({static_cast<double>(now_us) / 1e6, *kbps});
            next_bitrate_ = {now_us + kControlDelayUs, *kbps};
        }
    }

    ShapedPath path_;
    play::PathMeter meter_;
    play::BitrateController controller_;
    // Patient enough for packets that overtake each other by 30 ms.
    launcher::FrameAssembler assembler_{{.reorder_frames = 4,
                                         .reorder_us = 45'000,
                                         .pending_frames = 64,
                                         .pending_bytes = 1 << 24}};
    std::multimap<uint64_t, Packet> on_way_;  ///< by arrival
    std::optional<TokenBucket> bucket_;
    std::optional<std::pair<uint64_t, uint32_t>> next_bitrate_;
    uint32_t bitrate_;
    uint32_t picture_ = 0;
    uint64_t due_us_ = 0;
    uint64_t sender_us_ = 0;
    uint64_t sampled_us_ = 0;
    uint64_t shown_us_ = 0;
    std::mt19937 random_{5};
    std::uniform_real_distribution<> chance_{0, 1};
    std::array<uint8_t, kVideoPayloadBytes> payload_{};
};

}  // namespace ox::test
