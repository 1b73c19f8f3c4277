#include "fountain/wirehair.h"

#include <atomic>
#include <memory>
#include <new>

#include "fountain/codec.h"

struct WirehairCodec_t {
    ox::fountain::Codec codec;
};

namespace {

using ox::fountain::Codec;

constexpr int kVersion = 2;

constinit std::atomic<bool> initialised{false};

bool is_encoder(WirehairCodec codec) {
    return codec != nullptr && codec->codec.role() == Codec::Role::kEncoder;
}

bool is_decoder(WirehairCodec codec) {
    return codec != nullptr && codec->codec.role() == Codec::Role::kDecoder;
}

/// Runs `start` on the codec to reuse or on a new one; null when it does not succeed.
template <typename Start>
WirehairCodec create(WirehairCodec reuse, Start&& start) {
    if (!initialised.load(std::memory_order_acquire)) return nullptr;
    try {
        std::unique_ptr<WirehairCodec_t> fresh;
        if (reuse == nullptr) fresh = std::make_unique<WirehairCodec_t>();
        WirehairCodec codec = reuse != nullptr ? reuse : fresh.get();
        if (start(codec->codec) != Wirehair_Success) return nullptr;
        static_cast<void>(fresh.release());
        return codec;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

const char* wirehair_result_string(WirehairResult result) {
    switch (result) {
        case Wirehair_Success:
            return "Wirehair_Success";
        case Wirehair_NeedMore:
            return "Wirehair_NeedMore";
        case Wirehair_InvalidInput:
            return "Wirehair_InvalidInput";
        case Wirehair_BadDenseSeed:
            return "Wirehair_BadDenseSeed";
        case Wirehair_BadPeelSeed:
            return "Wirehair_BadPeelSeed";
        case Wirehair_BadInput_SmallN:
            return "Wirehair_BadInput_SmallN";
        case Wirehair_BadInput_LargeN:
            return "Wirehair_BadInput_LargeN";
        case Wirehair_ExtraInsufficient:
            return "Wirehair_ExtraInsufficient";
        case Wirehair_OOM:
            return "Wirehair_OOM";
        case Wirehair_UnsupportedPlatform:
            return "Wirehair_UnsupportedPlatform";
    }
    return "Unknown";
}

WirehairResult wirehair_init_(int expected_version) {
    if (expected_version != kVersion) return Wirehair_InvalidInput;
    initialised.store(true, std::memory_order_release);
    return Wirehair_Success;
}

WirehairCodec wirehair_encoder_create(WirehairCodec reuse, const void* message,
                                      uint64_t message_bytes, uint32_t block_bytes) {
    if (message == nullptr) return nullptr;
    return create(reuse, [&](Codec& codec) {
        return codec.start_encoder(static_cast<const uint8_t*>(message), message_bytes,
                                   block_bytes);
    });
}

WirehairResult wirehair_encode(WirehairCodec codec, uint32_t block_id, void* out,
                               uint32_t out_bytes, uint32_t* written) {
    if (written == nullptr) return Wirehair_InvalidInput;
    *written = 0;
    if (!is_encoder(codec) || out == nullptr) return Wirehair_InvalidInput;
    *written = codec->codec.encode(block_id, static_cast<uint8_t*>(out), out_bytes);
    return *written == 0 ? Wirehair_InvalidInput : Wirehair_Success;
}

WirehairCodec wirehair_decoder_create(WirehairCodec reuse, uint64_t message_bytes,
                                      uint32_t block_bytes) {
    return create(reuse,
                  [&](Codec& codec) { return codec.start_decoder(message_bytes, block_bytes); });
}

WirehairResult wirehair_decode(WirehairCodec codec, uint32_t block_id, const void* block,
                               uint32_t block_bytes) {
    if (!is_decoder(codec) || block == nullptr || block_bytes == 0) return Wirehair_InvalidInput;
    try {
        return codec->codec.decode(block_id, static_cast<const uint8_t*>(block), block_bytes);
    } catch (const std::bad_alloc&) {
        return Wirehair_OOM;
    }
}

WirehairResult wirehair_recover(WirehairCodec codec, void* message, uint64_t message_bytes) {
    if (!is_decoder(codec) || message == nullptr) return Wirehair_InvalidInput;
    return codec->codec.recover(static_cast<uint8_t*>(message), message_bytes);
}

WirehairResult wirehair_recover_block(WirehairCodec codec, uint32_t block_id, void* block,
                                      uint32_t* bytes) {
    if (!is_decoder(codec) || block == nullptr || bytes == nullptr) return Wirehair_InvalidInput;
    return codec->codec.recover_block(block_id, static_cast<uint8_t*>(block), *bytes);
}

WirehairResult wirehair_decoder_becomes_encoder(WirehairCodec codec) {
    if (!is_decoder(codec)) return Wirehair_InvalidInput;
    try {
        return codec->codec.become_encoder();
    } catch (const std::bad_alloc&) {
        return Wirehair_OOM;
    }
}

void wirehair_free(WirehairCodec codec) {
    const std::unique_ptr<WirehairCodec_t> owned(codec);
}
