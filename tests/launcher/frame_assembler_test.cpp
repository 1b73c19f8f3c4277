#include "launcher/frame_assembler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include "transport/packetizer.h"

namespace ox::launcher {
namespace {

using Bytes = std::vector<uint8_t>;
using Packets = std::vector<OutgoingPacket>;

Bytes random_unit(size_t size, std::mt19937& random) {
    Bytes bytes(size);
    std::ranges::generate(bytes, [&] { return static_cast<uint8_t>(random()); });
    bytes.back() |= 0x80;  // as in a real access unit, the last byte is not zero
    return bytes;
}

Packets packets_of(const Bytes& data, uint32_t frame_id, bool keyframe) {
    Packets packets;
    Packetizer().packetize(
        {.data = data, .frame_id = frame_id, .timestamp = 1000 + frame_id, .keyframe = keyframe}, 1,
        packets);
    return packets;
}

PacketVerdict push(FrameAssembler& assembler, const OutgoingPacket& packet, uint64_t now = 1) {
    return assembler.push(packet.header, packet.payload.bytes(), now);
}

TEST(FrameAssembler, RebuildsAnySingleLossOfEachGroup) {
    std::mt19937 random(1);
    for (const size_t size :
         {1163U, 2U * 1162, 8U * 1162, 8U * 1162 + 1, 9U * 1162, 20U * 1162 - 7, 2100U * 1162}) {
        const Bytes unit = random_unit(size, random);
        const Packets packets = packets_of(unit, 5, true);
        const size_t count = packets[0].header.count;
        const size_t covered = std::min<size_t>(count, 255 * 8);
        // Place by place, the same place of every group is lost, and the rest comes in reverse
        // before the parity.
        for (size_t place = 0; place < std::min<size_t>(8, covered); ++place) {
            FrameAssembler assembler;
            for (size_t i = count; i-- > 0;)
                if (i >= covered || i % 8 != place) push(assembler, packets[i]);
            for (size_t i = count; i < packets.size(); ++i)
                push(assembler, packets[i]);
            const auto frame = assembler.pop();
            ASSERT_TRUE(frame) << size << " bytes, place " << place;
            EXPECT_EQ(frame->data, unit) << size << " bytes, place " << place;
            EXPECT_EQ(frame->timestamp, place == 0 ? 0U : 1005U);
            EXPECT_EQ(assembler.counters().packets_recovered, (covered + 7 - place) / 8);
            EXPECT_EQ(assembler.pending_bytes(), 0U);
        }
    }
}

// A long stream over a bad network: whatever is delivered is right, in order, and accounted for.
TEST(FrameAssembler, NeverDeliversWrongBytes) {
    for (uint32_t seed = 0; seed < 12; ++seed) {
        std::mt19937 random(seed);
        const uint32_t loss_pct = seed % 4 * 4;  // 0, 4, 8, 12
        constexpr uint32_t kFrames = 150;
        const uint32_t first_id = UINT32_MAX - 100;  // wraps on the way
        std::map<uint32_t, Bytes> sent;
        std::vector<std::pair<uint64_t, OutgoingPacket>> wire;  // by arrival time
        for (uint32_t n = 0; n < kFrames; ++n) {
            const uint32_t id = first_id + n;
            const bool lossless = n == 0 || n + 1 == kFrames;  // what is lost there, none can know
            sent[id] = random_unit(1 + random() % 20000, random);
            uint64_t clock = n * 4000;  // up to two later frames overtake parts of one
            for (const auto& packet : packets_of(sent[id], id, n % 3 == 0)) {
                clock += 50;
                const uint64_t arrival = clock + random() % 6000;
                if (!lossless && random() % 100 < loss_pct) continue;
                wire.emplace_back(arrival, packet);
                if (random() % 20 == 0) wire.emplace_back(arrival + 700, packet);
            }
        }
        std::ranges::stable_sort(wire, {}, [](const auto& entry) { return entry.first; });

        FrameAssembler assembler;
        uint64_t delivered = 0;
        uint64_t lost = 0;
        uint32_t expected_id = first_id;
        const auto take_all = [&] {
            while (const auto frame = assembler.pop()) {
                expected_id += static_cast<uint32_t>(frame->lost_before);
                ASSERT_EQ(frame->frame_id, expected_id++) << "seed " << seed;
                ASSERT_EQ(frame->data, sent[frame->frame_id]) << "seed " << seed;
                ++delivered;
                lost += frame->lost_before;
            }
        };
        for (const auto& [now, packet] : wire) {
            EXPECT_NE(push(assembler, packet, now), PacketVerdict::Malformed);
            take_all();
        }
        assembler.expire(wire.back().first + 1'000'000);
        take_all();
        EXPECT_EQ(delivered + lost, kFrames) << "seed " << seed;
        EXPECT_EQ(assembler.pending_bytes(), 0U);
        if (loss_pct == 0) {
            EXPECT_EQ(lost, 0U) << "reordering alone must lose nothing, seed " << seed;
        }
        EXPECT_GT(delivered, kFrames / 8U) << "seed " << seed;
    }
}

}  // namespace
}  // namespace ox::launcher
