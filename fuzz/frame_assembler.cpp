// Decrypted media packets in any order at the launcher: bounded memory, frames in order.

#include <cstring>

#include "fuzz.h"
#include "launcher/client/frame_assembler.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    ox::launcher::FrameAssembler::Limits limits;
    limits.pending_frames = 8;
    limits.pending_bytes = 1 << 20;
    ox::launcher::FrameAssembler assembler(limits);
    uint64_t now_us = 1;
    int64_t last = -1;
    while (input.remaining_bytes() > 0) {
        ox::PacketHeader header{};
        header.stream = 1;
        header.frame_id = input.ConsumeIntegral<uint8_t>();
        header.index = input.ConsumeIntegralInRange<uint16_t>(0, 40);
        header.count = input.ConsumeIntegralInRange<uint16_t>(0, 40);
        header.flags = input.ConsumeIntegral<uint8_t>();
        header.group = input.ConsumeIntegral<uint8_t>();
        const std::vector<uint8_t> payload(input.ConsumeIntegralInRange<size_t>(0, 1300), 0x5A);
        now_us += input.ConsumeIntegralInRange<uint64_t>(0, 20'000);
        assembler.push(header, payload, now_us);
        OX_FUZZ_REQUIRE(assembler.pending_frames() <= limits.pending_frames + 1);
        OX_FUZZ_REQUIRE(assembler.pending_bytes() <= limits.pending_bytes + (1U << 17U));
        while (const auto frame = assembler.pop()) {
            OX_FUZZ_REQUIRE(int64_t{frame->frame_id} > last || last > 200);
            last = frame->frame_id;
        }
    }
    return 0;
}
