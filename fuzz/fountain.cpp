// The fountain decoder fed with honest blocks in any order and with garbage.

#include <vector>

#include "fountain/wirehair.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    OX_FUZZ_REQUIRE(wirehair_init() == Wirehair_Success);
    FuzzedDataProvider input(data, size);
    const auto block_bytes = input.ConsumeIntegralInRange<uint32_t>(1, 40);
    const auto message_bytes = input.ConsumeIntegralInRange<uint64_t>(1, 2000);
    std::vector<uint8_t> message(message_bytes);
    for (size_t i = 0; i < message.size(); ++i)
        message[i] = static_cast<uint8_t>(i * 7 + i / 256);

    const WirehairCodecPtr encoder(
        wirehair_encoder_create(nullptr, message.data(), message_bytes, block_bytes));
    const WirehairCodecPtr decoder(wirehair_decoder_create(nullptr, message_bytes, block_bytes));
    OX_FUZZ_REQUIRE((encoder == nullptr) == (decoder == nullptr));
    if (encoder == nullptr) return 0;

    bool honest = true;
    std::vector<uint8_t> block(block_bytes);
    while (input.remaining_bytes() > 0) {
        const auto id = input.ConsumeBool() ? input.ConsumeIntegral<uint8_t>()
                                            : input.ConsumeIntegral<uint32_t>();
        uint32_t written = 0;
        OX_FUZZ_REQUIRE(wirehair_encode(encoder.get(), id, block.data(), block_bytes, &written) ==
                        Wirehair_Success);
        if (input.ConsumeProbability<float>() > 0.99F) {
            block[0] = static_cast<uint8_t>(block[0] + 1);
            honest = false;
        }
        if (wirehair_decode(decoder.get(), id, block.data(), written) == Wirehair_Success) {
            std::vector<uint8_t> restored(message_bytes);
            const auto result = wirehair_recover(decoder.get(), restored.data(), message_bytes);
            if (honest) OX_FUZZ_REQUIRE(result == Wirehair_Success && restored == message);
            break;
        }
    }
    return 0;
}
