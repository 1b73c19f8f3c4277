#include "launcher/client/audio_assembler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

#include "audio/audioparity.h"

namespace ox::launcher {
namespace {

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
        EXPECT_EQ(assembler.push(changed.header, changed.payload, 1), PacketVerdict::Malformed)
            << "packet " << index;
    }
}

}  // namespace
}  // namespace ox::launcher
