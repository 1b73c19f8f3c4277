#include "launcher/audio_assembler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "audio/parity_block.h"
#include "launcher/audio_track.h"

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

// What an agent sends for `count` frames from `first` on, 5 ms apart.
std::vector<Sent> stream(uint32_t first, uint32_t count, bool parity) {
    std::vector<Sent> sent;
    ParityBlock block;
    for (uint32_t n = 0; n < count; ++n) {
        const uint32_t sequence = first + n;
        const uint64_t at = 1'000'000 + n * kFrameUs;
        const auto bytes = content(sequence);
        sent.push_back({{.stream = kStreamAudio,
                         .frame_id = sequence,
                         .index = 0,
                         .count = 1,
                         .flags = packet_flags::AUDIO | packet_flags::LAST_IN_FRAME,
                         .group = 0,
                         .timestamp = at},
                        bytes,
                        at});
        if (!parity || !block.add(sequence, bytes, at)) continue;
        ParityBlock::Shards shards;
        EXPECT_EQ(block.encode(shards), audioparity::Guard::kOk);
        for (uint16_t i = 0; i < audioparity::kRepairs; ++i)
            sent.push_back({{.stream = kStreamAudio,
                             .frame_id = block.base(),
                             .index = i,
                             .count = 4,
                             .flags = packet_flags::AUDIO_PARITY | packet_flags::AUDIO,
                             .group = 0,
                             .timestamp = at},
                            {shards.bytes[i].begin(),
                             shards.bytes[i].begin() + static_cast<ptrdiff_t>(shards.lengths[i])},
                            at});
    }
    return sent;
}

struct Heard {
    std::vector<uint32_t> sequences;
    AudioCounters counters;
    uint64_t lost_told = 0;
    uint64_t longest_wait = 0;
};

// Every frame handed out must be the one that was sent under its number.
Heard listen(const std::vector<Sent>& packets, uint64_t time_to_end = 100'000) {
    AudioAssembler assembler;
    Heard heard;
    uint64_t now = 0;
    const auto take = [&] {
        while (const auto frame = assembler.pop()) {
            EXPECT_EQ(frame->opus, content(frame->sequence)) << frame->sequence;
            EXPECT_EQ(frame->timestamp == 0, frame->repaired);
            heard.sequences.push_back(frame->sequence);
            heard.lost_told += frame->lost_before;
            heard.longest_wait = std::max(heard.longest_wait, now - frame->arrived);
        }
    };
    for (const Sent& packet : packets) {
        for (; now + kFrameUs < packet.at; now = now == 0 ? packet.at : now + kFrameUs)
            assembler.expire(now);
        now = std::max(now, packet.at);
        assembler.push(packet.header, packet.payload, now);
        take();
    }
    assembler.expire(now + time_to_end);
    take();
    heard.counters = assembler.counters();
    return heard;
}

std::vector<uint32_t> numbers(uint32_t first, uint32_t count) {
    std::vector<uint32_t> all(count);
    for (uint32_t i = 0; i < count; ++i)
        all[i] = first + i;
    return all;
}

TEST(AudioAssembler, AnyTwoOfABlocksSixPacketsMayBeLost) {
    for (size_t a = 0; a < 6; ++a) {
        for (size_t b = a; b < 6; ++b) {
            auto sent = stream(0, 12, true);
            sent.erase(sent.begin() + 6 + static_cast<ptrdiff_t>(b));
            if (a != b) sent.erase(sent.begin() + 6 + static_cast<ptrdiff_t>(a));
            const Heard heard = listen(sent);
            EXPECT_EQ(heard.sequences, numbers(0, 12)) << a << " and " << b;
            EXPECT_EQ(heard.counters.repaired,
                      static_cast<uint64_t>(a < 4) + static_cast<uint64_t>(b < 4 && a != b));
            EXPECT_EQ(heard.counters.lost, 0U);
            EXPECT_LE(heard.longest_wait, 20'000U) << "repaired when the block's end was there";
        }
    }
}

TEST(AudioAssembler, WhatCannotBeRepairedIsGivenUpSoonAndCounted) {
    for (const bool parity : {false, true}) {
        auto sent = stream(0, 24, parity);
        const auto lost = [](const Sent& packet) {
            const bool repair = packet.header.count == 4;
            return packet.header.frame_id >= 5 && packet.header.frame_id < 8 && !repair;
        };
        std::erase_if(sent, lost);
        const Heard heard = listen(sent);
        EXPECT_EQ(heard.counters.delivered, 21U) << parity;
        EXPECT_EQ(heard.counters.lost, 3U);
        EXPECT_EQ(heard.lost_told, 3U);
        EXPECT_LE(heard.longest_wait, 35'000U) << "a gap must not hold up the rest";
    }
}

TEST(AudioAssembler, DisorderCopiesAndWrapChangeNothing) {
    // The last frame of the range has number 5, past the wrap.
    auto sent = stream(0xFFFFFFF0, 22, true);
    std::mt19937 random(3);
    for (size_t i = 1; i + 4 < sent.size(); i += 4)  // the first packet tells where to start
        std::shuffle(sent.begin() + static_cast<ptrdiff_t>(i),
                     sent.begin() + static_cast<ptrdiff_t>(i) + 4, random);
    const auto once = sent;
    for (const Sent& packet : once)
        sent.insert(std::ranges::find_if(sent,
                                         [&](const Sent& other) {
                                             return std::memcmp(&other.header, &packet.header,
                                                                kHeaderBytes) == 0;
                                         }),
                    packet);
    const Heard heard = listen(sent);
    EXPECT_EQ(heard.sequences, numbers(0xFFFFFFF0, 22));
    EXPECT_EQ(heard.counters.lost, 0U);
}

TEST(AudioAssembler, ALongPauseIsBridgedAtOnce) {
    auto sent = stream(0, 4, true);
    const auto later = stream(100'000, 8, true);
    sent.insert(sent.end(), later.begin(), later.end());
    const Heard heard = listen(sent);
    EXPECT_EQ(heard.sequences.size(), 12U);
    EXPECT_EQ(heard.counters.lost, 99'996U);
}

TEST(AudioAssembler, RefusesWhatNoAgentSends) {
    const auto sent = stream(0, 4, true);
    const std::pair<size_t, void (*)(Sent&)> cases[] = {
        {0, [](Sent& p) { p.header.stream = 1; }},
        {0, [](Sent& p) { p.header.flags = 8; }},
        {0, [](Sent& p) { p.payload.clear(); }},
        {0, [](Sent& p) { p.header.index = 1; }},
        {4, [](Sent& p) { p.header.frame_id = 2; }},  // no block begins there
        {4, [](Sent& p) { p.payload[4] = 1; }},       // says it is the other one
        {4, [](Sent& p) { p.payload.pop_back(); }},
        {4, [](Sent& p) { p.payload[8] = 0; }},   // an empty frame
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

TEST(AudioClock, FollowsTheCountAndNewStartsButNoJitter) {
    AudioClock clock;
    const auto place = [&](uint32_t sequence, uint64_t sent) {
        return clock.place({.opus = {}, .sequence = sequence, .timestamp = sent});
    };
    EXPECT_FALSE(place(9, 0)) << "rebuilt, so without a time";
    EXPECT_EQ(place(10, 1'000'000), 1'000'000U);
    EXPECT_EQ(place(11, 1'009'000), 1'005'000U);
    EXPECT_EQ(place(13, 0), 1'015'000U);
    EXPECT_EQ(place(14, 1'400'000), 1'400'000U) << "the recording has paused";
}

}  // namespace
}  // namespace ox::launcher
