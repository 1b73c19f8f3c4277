// Opened packets of sound in any order at the launcher: frames in order, and every number accounted
// for as handed out or lost.

#include <cstring>

#include "fuzz.h"
#include "launcher/client/audio_assembler.h"

namespace {

// A repair shard whose header is right as often as not.
std::vector<uint8_t> make_shard(FuzzedDataProvider& input) {
    ox::audioparity::ShardHeader header{.shard_len = input.ConsumeIntegralInRange<uint16_t>(0, 24),
                                        .block_len = 4,
                                        .repair_count = 2,
                                        .repair_index = input.ConsumeIntegralInRange<uint8_t>(0, 2),
                                        .version = 1,
                                        .reserved = 0,
                                        .orig_len = {}};
    for (uint16_t& length : header.orig_len)
        length = input.ConsumeIntegralInRange<uint16_t>(0, 24);
    std::vector<uint8_t> shard(sizeof header + header.shard_len, input.ConsumeIntegral<uint8_t>());
    std::memcpy(shard.data(), &header, sizeof header);
    return shard;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    ox::launcher::AudioAssembler assembler;
    const auto base = input.ConsumeIntegral<uint32_t>();
    uint64_t now_us = 1;
    bool started = false;
    uint32_t next = 0;
    while (input.remaining_bytes() > 0) {
        ox::PacketHeader header{};
        header.stream = 2;
        header.frame_id = base + input.ConsumeIntegral<uint16_t>() % 1024;
        header.index = input.ConsumeIntegralInRange<uint16_t>(0, 2);
        const bool repair = input.ConsumeBool();
        header.count = repair ? 4 : 1;
        header.flags = repair ? 0x24 : 0x0C;
        if (repair) header.frame_id &= ~3U;
        const auto payload =
            repair ? make_shard(input)
                   : std::vector<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 24), 0x5A);
        now_us += input.ConsumeIntegralInRange<uint64_t>(0, 20'000);
        assembler.push(header, payload, now_us);
        assembler.expire(now_us);
        while (const auto frame = assembler.pop()) {
            const auto expected = static_cast<uint32_t>(next + frame->lost_before);  // may wrap
            OX_FUZZ_REQUIRE(!started || frame->sequence == expected);
            OX_FUZZ_REQUIRE(!frame->opus.empty());
            started = true;
            next = frame->sequence + 1;
        }
    }
    return 0;
}
