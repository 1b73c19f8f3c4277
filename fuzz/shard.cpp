// Repair symbols and frames of an audio block, as a launcher gets them from the network.

#include "audio/audioparity.h"
#include "fuzz.h"

using namespace ox::audioparity;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    BlockDecoder block;
    ShardHeader reference;
    bool open = false;
    for (int piece = 0; piece < 12 && input.remaining_bytes() > 0; ++piece) {
        const bool repair = input.ConsumeBool();
        const auto index = input.ConsumeIntegral<uint8_t>();
        const std::string bytes = input.ConsumeRandomLengthString(kMaxRepairBytes + 2);
        const auto* begin = reinterpret_cast<const uint8_t*>(bytes.data());
        ShardHeader header = reference;
        size_t offset = 0;
        if (repair) {
            if (parse_shard(begin, bytes.size(), header) != Guard::kOk) continue;
            OX_FUZZ_REQUIRE(bytes.size() == kShardHeaderBytes + header.shard_len);
            if (!open && block.init_from(header)) {
                open = true;
                reference = header;
            }
            offset = kShardHeaderBytes;
        }
        if (open) block.add(repair, index, header, begin + offset, bytes.size() - offset);
    }
    if (!block.can_recover()) return 0;
    std::vector<std::vector<uint8_t>> frames;
    bool rebuilt = false;
    if (block.recover(frames, rebuilt) == Guard::kOk) {
        OX_FUZZ_REQUIRE(frames.size() == kDataFrames);
        for (const auto& frame : frames)
            OX_FUZZ_REQUIRE(frame.size() <= kMaxShardBytes);
    }
    return 0;
}
