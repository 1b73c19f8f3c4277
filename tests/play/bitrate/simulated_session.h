#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <vector>

#include "launcher/client/frame_assembler.h"
#include "play/bitrate/bitrate_controller.h"
#include "support/shaped_path.h"
#include "transport/token_bucket.h"

namespace ox::test {

/// Agent, path and player in simulated time: paced pictures of 60 a second through a ShapedPath
/// into an assembler, meter and controller.
class SimulatedSession {
  public:
    struct Change {
        double at_s = 0;
        uint32_t kbps = 0;
    };

    SimulatedSession(const ShapedPath::Setup& path, uint32_t start_kbps)
        : path_(path), controller_(start_kbps, {}), bitrate_(start_kbps) {}

    void run(double seconds) {
        const auto end_us = static_cast<uint64_t>(seconds * 1e6);
        for (uint64_t due_us = 0; due_us < end_us; due_us += 16'667) {
            receive_until(due_us);
            if (sender_us_ <= due_us) send_picture(due_us);
        }
    }

    std::function<double(double)> need = [](double) { return 1; };  ///< of the bitrate, by second
    double decode_ms = 5;
    std::vector<Change> changes;
    double longest_stall_s = 0;  ///< between complete pictures, after the first second
    [[nodiscard]] uint32_t target_kbps() const { return controller_.target_kbps(); }

  private:
    static constexpr uint64_t kControlDelayUs = 15'000;
    static constexpr uint64_t kClockOffsetUs = 77'000'000'000;  // the agent's clock is another

    struct Packet {
        PacketHeader header;
        size_t size;
    };

    void send_picture(uint64_t now_us) {
        const auto now = [](uint64_t us) {
            return SteadyClock::time_point(std::chrono::microseconds(us));
        };
        bool keyframe = picture_ == 0;
        if (next_bitrate_ && now_us >= next_bitrate_->first) {
            bitrate_ = next_bitrate_->second;
            bucket_ = TokenBucket(bitrate_ * 1500 / 8, now(now_us));
            next_bitrate_.reset();
            keyframe = true;
        }
        if (!bucket_) bucket_.emplace(bitrate_ * 1500 / 8, now(now_us));
        const double bytes = bitrate_ * 1000.0 / 8 / 60 * need(static_cast<double>(now_us) / 1e6) *
                             (keyframe ? 4 : 0.75 + 0.5 * chance_(random_));
        const auto count = static_cast<uint16_t>(1 + bytes / kVideoPayloadBytes);
        const auto parity = keyframe ? (count + 7) / 8 : count == 1 ? 1 : 0;
        uint64_t at_us = now_us + 5'000;  // encoded
        ++picture_;
        for (int i = 0; i < count + parity; ++i) {
            const bool last = i + 1 == count || count == 1;
            const size_t size =
                last ? 1 + static_cast<size_t>(bytes) % kVideoPayloadBytes : kVideoPayloadBytes;
            Packet packet{.header = {.stream = kStreamVideo, .frame_id = picture_}, .size = size};
            packet.header.index = static_cast<uint16_t>(count == 1 ? 0 : i);
            packet.header.count = count;
            if (keyframe) packet.header.flags |= packet_flags::KEYFRAME;
            if (count > 1 && i >= count) packet.header.flags |= packet_flags::FEC_PACKET;
            if (packet.header.index == 0) packet.header.timestamp = now_us + kClockOffsetUs;
            at_us += 15 + static_cast<uint64_t>(bucket_->take(size + 38, now(at_us)).sleep.count());
            if (const auto arrival = path_.pass(at_us, size + 38)) {
                on_way_.emplace(*arrival, packet);
            }
        }
        sender_us_ = at_us;
    }

    void receive_until(uint64_t now_us) {
        for (; !on_way_.empty() && on_way_.begin()->first <= now_us;
             on_way_.erase(on_way_.begin())) {
            const auto& [at_us, packet] = *on_way_.begin();
            meter_.on_packet(packet.header, packet.size + 38, at_us);
            assembler_.push(packet.header, std::span(bytes_).first(packet.size), at_us);
            assembler_.expire(at_us);
            while (assembler_.pop()) {
                if (shown_us_ > 1'000'000) {
                    const auto gap = static_cast<double>(at_us - shown_us_) / 1e6;
                    longest_stall_s = std::max(longest_stall_s, gap);
                }
                shown_us_ = at_us;
            }
        }
        if (now_us < sampled_us_ + 100'000) return;
        sampled_us_ = now_us;
        const auto sample = meter_.take_sample(now_us, decode_ms);
        if (on_sample) on_sample(sample);
        if (const auto kbps = controller_.update(sample)) {
            changes.push_back({static_cast<double>(now_us) / 1e6, *kbps});
            next_bitrate_ = {now_us + kControlDelayUs, *kbps};
        }
    }

  public:
    std::function<void(const play::PathSample&)> on_sample;

  private:
    ShapedPath path_;
    play::PathMeter meter_;
    play::BitrateController controller_;
    launcher::FrameAssembler assembler_{{.reorder_frames = 4, .reorder_us = 45'000}};
    std::multimap<uint64_t, Packet> on_way_;  ///< by arrival
    std::optional<TokenBucket> bucket_;
    std::optional<std::pair<uint64_t, uint32_t>> next_bitrate_;
    uint32_t bitrate_;
    uint32_t picture_ = 0;
    uint64_t sender_us_ = 0;
    uint64_t sampled_us_ = 0;
    uint64_t shown_us_ = 0;
    std::mt19937 random_{5};
    std::uniform_real_distribution<> chance_{0, 1};
    std::array<uint8_t, kVideoPayloadBytes> bytes_{};
};

}  // namespace ox::test
