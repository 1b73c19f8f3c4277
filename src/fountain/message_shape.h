#pragma once

#include <cstdint>

#include "fountain/tables.h"
#include "fountain/wirehair.h"

namespace ox::fountain {

/// How a message is cut into blocks.
struct MessageShape {
    uint64_t message_bytes = 0;
    uint32_t block_bytes = 0;
    uint32_t block_count = 0;
    uint32_t final_bytes = 0;  ///< length of the last source block

    /// Length of a block as it travels.
    [[nodiscard]] uint32_t bytes_of(uint32_t block_id) const noexcept {
        return block_id + 1 == block_count ? final_bytes : block_bytes;
    }
};

/// Fills `shape`, or tells why such a message cannot be coded.
inline WirehairResult cut_message(uint64_t message_bytes, uint32_t block_bytes,
                                  MessageShape& shape) noexcept {
    if (message_bytes == 0 || block_bytes == 0) return Wirehair_InvalidInput;
    const uint64_t full_blocks = (message_bytes - 1) / block_bytes;
    if (full_blocks + 1 < kMinBlocks) return Wirehair_BadInput_SmallN;
    if (full_blocks + 1 > kMaxBlocks) return Wirehair_BadInput_LargeN;
    shape.message_bytes = message_bytes;
    shape.block_bytes = block_bytes;
    shape.block_count = static_cast<uint32_t>(full_blocks + 1);
    shape.final_bytes = static_cast<uint32_t>(message_bytes - full_blocks * block_bytes);
    return Wirehair_Success;
}

}  // namespace ox::fountain
