#pragma once

#include <cstdint>
#include <memory>

/// A systematic erasure code (fountain code): a message cut into N blocks is restored from any N of
/// its source blocks and of arbitrarily many repair blocks, in rare cases from one block more.
///
/// The message is cut into blocks of `block_bytes`; the last one may be shorter and counts as
/// padded with zeros. Block ids 0 .. N-1 are the source blocks themselves, ids from N on are repair
/// blocks. N is 2 .. 64000. Sender and receiver agree on the message length and the block length.
///
/// Codecs are independent of each other; one codec is used by one thread at a time. No function
/// throws or logs.

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

/// The name of a result, "Unknown" for any other value.
const char* wirehair_result_string(WirehairResult result);

/// Must have succeeded once before any codec is created; any thread, any number of times.
/// InvalidInput for a version other than 2.
WirehairResult wirehair_init_(int expected_version);

/// An encoder for a message, which is not needed any more after the call. Takes time proportional
/// to the message. Null when not initialised, for a null or empty message, a zero block length, N
/// outside 2 .. 64000 or too little memory.
///
/// `reuse` is null or a codec to be reused, whose handle is then returned. When the call fails,
/// `reuse` still belongs to the caller, who may only pass it to another create call or free it.
WirehairCodec wirehair_encoder_create(WirehairCodec reuse, const void* message,
                                      uint64_t message_bytes, uint32_t block_bytes);

/// Writes block `block_id` to `out` and its length to `written`: `block_bytes`, or less for the
/// last source block. InvalidInput for a null argument, a decoder, or `out_bytes` below the block's
/// length (`written` is then 0).
WirehairResult wirehair_encode(WirehairCodec codec, uint32_t block_id, void* out,
                               uint32_t out_bytes, uint32_t* written);

/// A decoder for a message of known length; `reuse` and failures as for the encoder.
WirehairCodec wirehair_decoder_create(WirehairCodec reuse, uint64_t message_bytes,
                                      uint32_t block_bytes);

/// Takes a received block, in any order; the bytes are copied. NeedMore until enough blocks have
/// arrived, then Success, also for every later block. A duplicate block id is NeedMore (or
/// Success) and changes nothing. InvalidInput for a null argument, an encoder, or a length other
/// than the block's own; the last source block may also come padded to `block_bytes`. OOM leaves
/// the decoder as it was before the call.
WirehairResult wirehair_decode(WirehairCodec codec, uint32_t block_id, const void* block,
                               uint32_t block_bytes);

/// Writes the whole message, `message_bytes` as given at creation. NeedMore before
/// `wirehair_decode` succeeded, InvalidInput for a null argument, an encoder or another length.
WirehairResult wirehair_recover(WirehairCodec codec, void* message, uint64_t message_bytes);

/// Writes source block `block_id` to `block` (room for its length, `block_bytes` or less for the
/// last one) and that length to `bytes`. NeedMore before `wirehair_decode` succeeded, InvalidInput
/// for a null argument, an encoder or an id that is no source block's.
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
