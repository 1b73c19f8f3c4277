// The fountain decoder fed with honest blocks in any order and with garbage.

#include <vector>

#include "fountain/wirehair.h"
#include "fuzz.h"

namespace {

struct Codec {
    explicit Codec(WirehairCodec made) : handle(made) {}
    ~Codec() { wirehair_free(handle); }
    Codec(const Codec&) = delete;
    Codec& operator=(const Codec&) = delete;
    WirehairCodec handle;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    OX_FUZZ_REQUIRE(wirehair_init() == Wirehair_Success);
    FuzzedDataProvider input(data, size);
    const auto block_bytes = input.ConsumeIntegralInRange<uint32_t>(1, 40);
    const auto message_bytes = input.ConsumeIntegralInRange<uint64_t>(1, 2000);
    std::vector<uint8_t> message(message_bytes);
    for (size_t i = 0; i < message.size(); ++i)
        message[i] = static_cast<uint8_t>(i * 7 + i / 256);

    const Codec encoder(
        wirehair_encoder_create(nullptr, message.data(), message_bytes, block_bytes));
    const Codec decoder(wirehair_decoder_create(nullptr, message_bytes, block_bytes));
    OX_FUZZ_REQUIRE((encoder.handle == nullptr) == (decoder.handle == nullptr));
    if (encoder.handle == nullptr) return 0;

    bool honest = true;
    std::vector<uint8_t> block(block_bytes);
    while (input.remaining_bytes() > 0) {
        const auto id = input.ConsumeBool() ? input.ConsumeIntegral<uint8_t>()
                                            : input.ConsumeIntegral<uint32_t>();
        uint32_t written = 0;
        OX_FUZZ_REQUIRE(wirehair_encode(encoder.handle, id, block.data(), block_bytes, &written) ==
                        Wirehair_Success);
        if (input.ConsumeProbability<float>() > 0.99F) {
            block[0] = static_cast<uint8_t>(block[0] + 1);
            honest = false;
        }
        if (wirehair_decode(decoder.handle, id, block.data(), written) == Wirehair_Success) {
            std::vector<uint8_t> restored(message_bytes);
            const auto result = wirehair_recover(decoder.handle, restored.data(), message_bytes);
            if (honest) OX_FUZZ_REQUIRE(result == Wirehair_Success && restored == message);
            break;
        }
    }
    return 0;
}
