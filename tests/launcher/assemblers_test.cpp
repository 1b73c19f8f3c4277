// Frames and sound from packets that were lost, doubled or reordered.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <vector>

#include "audio/audioparity.h"
#include "launcher/client/audio_assembler.h"
#include "launcher/client/frame_assembler.h"
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

constexpr uint64_t kFrameUs = 5'000;

struct Sent {
    PacketHeader header;
    std::vector<uint8_t> payload;
    uint64_t at = 0;
};

// Frame n has its own length and its own bytes.
std::vector<uint8_t> content(uint32_t sequence) {
    return std::vector<uint8_t>(40 + sequence % 7 * 13, static_cast<uint8_t>(sequence * 31 + 5));
}

// An agent's packets of `count` frames from `first` on, 5 ms apart.
std::vector<Sent> stream(uint32_t first, uint32_t count, bool parity) {
    std::vector<Sent> sent;
    ParityBlock block;
    for (uint32_t n = 0; n < count; ++n) {
        const uint32_t sequence = first + n;
        const uint64_t at = 1'000'000 + n * kFrameUs;
        PacketHeader header{.stream = kStreamAudio,
                            .frame_id = sequence,
                            .count = 1,
                            .flags = packet_flags::AUDIO | packet_flags::LAST_IN_FRAME,
                            .timestamp = at};
        const auto bytes = content(sequence);
        sent.push_back({header, bytes, at});
        if (!parity || !block.add(sequence, bytes, at)) continue;
        ParityBlock::Shards shards;
        EXPECT_EQ(block.encode(shards), audioparity::Guard::kOk);
        header.frame_id = block.base();
        header.count = 4;
        header.flags = packet_flags::AUDIO_PARITY | packet_flags::AUDIO;
        for (uint16_t i = 0; i < audioparity::kRepairs; ++i) {
            header.index = i;
            const uint8_t* shard = shards.bytes[i].data();
            sent.push_back({header, {shard, shard + shards.lengths[i]}, at});
        }
    }
    return sent;
}

struct Output {
    std::vector<uint32_t> sequences;
    AudioCounters counters;
    uint64_t lost_reported = 0;
    uint64_t longest_wait = 0;
};

// Checks that each delivered frame is the one that was sent under its number.
Output assemble(const std::vector<Sent>& packets) {
    AudioAssembler assembler;
    Output output;
    uint64_t now = packets.front().at;
    const auto take = [&] {
        while (const auto frame = assembler.pop()) {
            EXPECT_EQ(frame->opus, content(frame->sequence)) << frame->sequence;
            EXPECT_EQ(frame->timestamp == 0, frame->repaired);
            output.sequences.push_back(frame->sequence);
            output.lost_reported += frame->lost_before;
            output.longest_wait = std::max(output.longest_wait, now - frame->arrived);
        }
    };
    for (const Sent& packet : packets) {
        for (; now < packet.at; now += kFrameUs)
            assembler.expire(now);
        for (int copy = 0; copy < 2; ++copy)  // duplicates change nothing
            assembler.push(packet.header, packet.payload, now);
        take();
    }
    assembler.expire(now + 100'000);
    take();
    output.counters = assembler.counters();
    return output;
}

std::vector<uint32_t> numbers(uint32_t first, uint32_t count) {
    std::vector<uint32_t> all(count);
    std::iota(all.begin(), all.end(), first);
    return all;
}

TEST(AudioAssembler, RepairsAnyTwoLossesOfABlocksSixPackets) {
    constexpr uint32_t kFirst = 0xFFFFFFF8;  // wraps behind the block that is hit
    for (size_t a = 0; a < 6; ++a) {
        for (size_t b = a; b < 6; ++b) {
            auto sent = stream(kFirst, 12, true);
            sent.erase(sent.begin() + 6 + static_cast<ptrdiff_t>(b));
            if (a != b) sent.erase(sent.begin() + 6 + static_cast<ptrdiff_t>(a));
            const Output output = assemble(sent);
            EXPECT_EQ(output.sequences, numbers(kFirst, 12)) << a << " and " << b;
            EXPECT_EQ(output.counters.repaired,
                      static_cast<uint64_t>(a < 4) + static_cast<uint64_t>(b < 4 && a != b));
            EXPECT_EQ(output.counters.lost, 0U);
            EXPECT_LE(output.longest_wait, 20'000U) << "not repaired at the block's end";
        }
    }
}

TEST(AudioAssembler, UnrepairableFramesAreDroppedSoonAndCounted) {
    for (const bool parity : {false, true}) {
        auto sent = stream(0, 24, parity);
        const auto is_lost = [](const Sent& packet) {
            const bool repair = packet.header.count == 4;
            return packet.header.frame_id >= 5 && packet.header.frame_id < 8 && !repair;
        };
        std::erase_if(sent, is_lost);
        const Output output = assemble(sent);
        EXPECT_EQ(output.counters.delivered, 21U) << parity;
        EXPECT_EQ(output.counters.lost, 3U);
        EXPECT_EQ(output.lost_reported, 3U);
        EXPECT_LE(output.longest_wait, 35'000U) << "a gap delayed the rest";
    }
}

TEST(AudioAssembler, RejectsInconsistentPackets) {
    const auto sent = stream(0, 4, true);
    const std::pair<size_t, void (*)(Sent&)> cases[] = {
        {0, [](Sent& p) { p.header.stream = 1; }},   {0, [](Sent& p) { p.header.flags = 8; }},
        {4, [](Sent& p) { p.header.frame_id = 2; }},  // no block begins there
        {4, [](Sent& p) { p.payload[4] = 1; }},  // says it is the other one
        {4, [](Sent& p) { p.payload[8] = 0; }},  // an empty frame
        {5, [](Sent& p) { p.payload[8] ^= 1; }},  // other lengths than the block's first says
    };
    for (const auto& [index, change] : cases) {
        AudioAssembler assembler;
        assembler.push(sent[1].header, sent[1].payload, 1);
        if (index == 5) assembler.push(sent[4].header, sent[4].payload, 1);
        Sent changed = sent[index];
        change(changed);
        EXPECT_EQ(assembler.push(changed.header, changed.payload, 1), PacketVerdict::Malformed);
    }
}

}  // namespace
}  // namespace ox::launcher
