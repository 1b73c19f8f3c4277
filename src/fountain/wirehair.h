#pragma once

#include <cstdint>
#include <memory>

/// A systematic erasure code (fountain code): a message cut into N blocks is restored from any N of
/// its source blocks and of arbitrarily many repair blocks, in rare cases from one block more.
///
/// Ids 0 .. N-1 are the source blocks, of which the last may be shorter and counts as padded with
/// zeros; ids from N on are repair blocks. Both ends agree on the lengths.
///
/// One codec is used by one thread at a time. No function throws or logs.

enum WirehairResult : int {
    Wirehair_Success = 0,
    Wirehair_NeedMore = 1,
    Wirehair_InvalidInput = 2,
    Wirehair_BadDenseSeed = 3,
    Wirehair_BadPeelSeed = 4,
    Wirehair_BadInput_SmallN = 5,
    Wirehair_BadInput_LargeN = 6,
    Wirehair_ExtraInsufficient = 7,
    Wirehair_OOM = 9,
    Wirehair_UnsupportedPlatform = 10,
};

struct WirehairCodec_t;
/// An encoder or a decoder; released with `wirehair_free`.
using WirehairCodec = WirehairCodec_t*;

extern "C" {

const char* wirehair_result_string(WirehairResult result);

/// Must succeed once before any codec; any thread. InvalidInput for a version other than 2.
WirehairResult wirehair_init_(int expected_version);

/// An encoder; the message is not needed any more. Null when not initialised, for a null or empty
/// message, a zero block length, N outside 2 .. 64000 or too little memory. A codec to `reuse` is
/// returned; after a failure the caller may only pass it to another create call or free it.
WirehairCodec wirehair_encoder_create(WirehairCodec reuse, const void* message,
                                      uint64_t message_bytes, uint32_t block_bytes);

/// Writes the block and its length. InvalidInput, with `written` 0, for a null argument, a decoder,
/// or `out_bytes` below the block's length.
WirehairResult wirehair_encode(WirehairCodec codec, uint32_t block_id, void* out,
                               uint32_t out_bytes, uint32_t* written);

/// A decoder for a message of known length; `reuse` and failures as for the encoder.
WirehairCodec wirehair_decoder_create(WirehairCodec reuse, uint64_t message_bytes,
                                      uint32_t block_bytes);

/// A received block, in any order, is copied. NeedMore until there are enough, then always Success;
/// a duplicate changes nothing. InvalidInput for a null argument, an encoder, or a wrong length;
/// the last source block may come padded. OOM leaves the decoder unchanged.
WirehairResult wirehair_decode(WirehairCodec codec, uint32_t block_id, const void* block,
                               uint32_t block_bytes);

/// Writes the whole message, `message_bytes` as given at creation. NeedMore before
/// `wirehair_decode` succeeded, InvalidInput for a null argument, an encoder or another length.
WirehairResult wirehair_recover(WirehairCodec codec, void* message, uint64_t message_bytes);

/// Writes source block `block_id` and its length. NeedMore before `wirehair_decode` succeeded,
/// InvalidInput for a null argument, an encoder or an id that is no source block's.
WirehairResult wirehair_recover_block(WirehairCodec codec, uint32_t block_id, void* block,
                                      uint32_t* bytes);

/// Turns a decoder into an encoder of the same message. NeedMore before `wirehair_decode`
/// succeeded, InvalidInput for null or an encoder, OOM with the decoder unchanged.
WirehairResult wirehair_decoder_becomes_encoder(WirehairCodec codec);

/// Releases a codec; null is allowed.
void wirehair_free(WirehairCodec codec);

}  // extern "C"

/// Initialises the version of the interface that this header describes.
inline WirehairResult wirehair_init() {
    return wirehair_init_(2);
}

struct WirehairFree {
    void operator()(WirehairCodec codec) const noexcept { wirehair_free(codec); }
};
using WirehairCodecPtr = std::unique_ptr<WirehairCodec_t, WirehairFree>;
