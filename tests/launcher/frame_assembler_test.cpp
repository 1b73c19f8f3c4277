#include "launcher/client/frame_assembler.h"

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
        ASSERT_EQ(packets.size(), count + (covered + 7) / 8);
        // Loses the same place of every group; the rest arrives in reverse order, then the parity.
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

// A long stream over a bad network: delivered frames are correct, in order and accounted for.
TEST(FrameAssembler, NeverDeliversWrongBytes) {
    constexpr uint32_t kFirst = UINT32_MAX - 100;  // wraps around
    constexpr uint32_t kFrames = 150;
    for (uint32_t seed = 0; seed < 12; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const uint32_t loss_pct = seed % 4 * 4;  // 0, 4, 8, 12
        std::vector<Bytes> sent;
        std::multimap<uint64_t, OutgoingPacket> wire;  // by arrival time
        for (uint32_t n = 0; n < kFrames; ++n) {
            const bool lossless = n == 0 || n + 1 == kFrames;  // its loss cannot be detected
            sent.push_back(random_unit(1 + random() % 20000, random));
            uint64_t clock = n * 4000;  // up to two later frames overtake parts of one
            for (const auto& packet : packets_of(sent[n], kFirst + n, n % 3 == 0)) {
                clock += 50;
                const uint64_t arrival = clock + random() % 6000;
                if (!lossless && random() % 100 < loss_pct) continue;
                wire.emplace(arrival, packet);
                if (random() % 20 == 0) wire.emplace(arrival + 700, packet);
            }
        }
        FrameAssembler assembler;
        uint32_t next = 0;  // all before it are delivered or lost
        uint32_t lost = 0;
        const auto take_all = [&] {
            while (const auto frame = assembler.pop()) {
                next += static_cast<uint32_t>(frame->lost_before);
                lost += static_cast<uint32_t>(frame->lost_before);
                ASSERT_EQ(frame->frame_id, kFirst + next);
                ASSERT_EQ(frame->data, sent[next++]);
            }
        };
        for (const auto& [now, packet] : wire) {
            EXPECT_NE(push(assembler, packet, now), PacketVerdict::Malformed);
            take_all();
        }
        assembler.expire(wire.rbegin()->first + 1'000'000);
        take_all();
        EXPECT_EQ(next, kFrames);
        EXPECT_EQ(assembler.pending_bytes(), 0U);
        EXPECT_TRUE(loss_pct > 0 || lost == 0) << "reordering alone lost frames";
        EXPECT_LT(lost, kFrames * 7 / 8);
    }
}

}  // namespace
}  // namespace ox::launcher
