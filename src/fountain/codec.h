#pragma once

#include <bit>
#include <cstdint>
#include <memory>
#include <vector>

#include "fountain/blocks.h"
#include "fountain/direct_code.h"
#include "fountain/matrix_solver.h"
#include "fountain/wirehair.h"

namespace ox::fountain {

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

/// Fills `shape`; other than success for a message that cannot be coded.
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

/// The ids of the blocks that a decoder holds, numbered in order of arrival.
class ReceivedIds {
  public:
    static constexpr uint32_t kNone = UINT32_MAX;

    /// Empties the list; it will hold at most `limit` ids.
    void reset(uint32_t limit) {
        ids_.clear();
        ids_.reserve(limit);
        slots_.assign(std::bit_ceil(limit + limit / 2 + 2), 0);
    }

    [[nodiscard]] uint32_t find(uint32_t id) const noexcept {
        const uint32_t entry = slots_[slot_of(id)];
        return entry == 0 ? kNone : entry - 1;
    }

    /// Appends an id that is not in the list.
    void append(uint32_t id) noexcept {
        const size_t slot = slot_of(id);
        ids_.push_back(id);
        slots_[slot] = size();
    }

    void drop_last() noexcept {
        slots_[slot_of(ids_.back())] = 0;  // nothing was placed behind it
        ids_.pop_back();
    }

    [[nodiscard]] uint32_t size() const noexcept { return static_cast<uint32_t>(ids_.size()); }
    [[nodiscard]] const std::vector<uint32_t>& ids() const noexcept { return ids_; }

  private:
    // Open addressing; the slot that holds the id or the free one where it belongs.
    [[nodiscard]] size_t slot_of(uint32_t id) const noexcept {
        const size_t mask = slots_.size() - 1;
        const uint32_t hash = id * 0x9e3779b1U;
        size_t slot = hash & mask;
        while (slots_[slot] != 0 && ids_[slots_[slot] - 1] != id)
            slot = (slot + 1) & mask;
        return slot;
    }

    std::vector<uint32_t> ids_;
    std::vector<uint32_t> slots_;  ///< number of an id plus one, 0 for a free slot
};

/// Behind the C interface, which has checked the pointers. What allocates throws std::bad_alloc.
class Codec {
  public:
    enum class Role : uint8_t { kNone, kEncoder, kDecoder };

    [[nodiscard]] Role role() const noexcept { return role_; }

    /// Starts a new message. After a failure or an exception the role is kNone.
    WirehairResult start_encoder(const uint8_t* message, uint64_t message_bytes,
                                 uint32_t block_bytes);
    WirehairResult start_decoder(uint64_t message_bytes, uint32_t block_bytes);

    /// Encoder: writes a block, returns its length, 0 when `out_bytes` is less.
    uint32_t encode(uint32_t block_id, uint8_t* out, uint32_t out_bytes) const noexcept;

    /// Decoder. An exception leaves it as if the block had not arrived.
    WirehairResult decode(uint32_t block_id, const uint8_t* block, uint32_t bytes);
    WirehairResult recover(uint8_t* message, uint64_t message_bytes) const noexcept;
    WirehairResult recover_block(uint32_t block_id, uint8_t* block, uint32_t& bytes) const noexcept;
    /// After an exception it is still the decoder.
    WirehairResult become_encoder();

  private:
    void store_block(uint32_t block_id, const uint8_t* block, uint32_t bytes);
    void copy_padded(uint8_t* to, const uint8_t* block, uint32_t bytes) const noexcept;
    void drop_last_block() noexcept;
    bool try_to_complete();
    bool complete_by_matrix(bool& kept);
    bool complete_directly(bool& kept);
    bool solve_matrix();
    void solve_blocks(const BlockSource& source);
    void generate(uint32_t block_id, uint8_t* out, size_t bytes) const noexcept;
    void generate_directly(uint32_t block_id, uint8_t* out, size_t bytes) const noexcept;
    void write_source_block(uint32_t block_id, uint8_t* out) const noexcept;
    [[nodiscard]] BlockSource received_source() const noexcept;

    Role role_ = Role::kNone;
    bool complete_ = false;      ///< decoder: the message can be recovered
    bool matrix_ready_ = false;  ///< decoder: matrix_ holds all blocks received
    MessageShape shape_;
    CodeParams params_;
    MatrixSolver matrix_;
    uint32_t source_matrix_ = 0;  ///< N, while matrix_ is the solved one of an encoder for N blocks
    const DirectCode* direct_ = nullptr;  ///< for few blocks, in place of matrix_

    /// Input of `generate`: with matrix_ the intermediate blocks, with direct_ the source blocks
    /// (in a decoder those that it has not received).
    BlockBuffer blocks_;
    bool blocks_solved_ = false;

    // Decoder only.
    ReceivedIds received_;
    BlockBuffer received_blocks_;                           ///< the first N
    std::vector<std::unique_ptr<uint8_t[]>> extra_blocks_;  ///< those after NeedMore at N
    std::vector<const uint8_t*> extra_pointers_;
    uint32_t source_count_ = 0;  ///< source blocks received
    uint32_t missing_ = 0;       ///< with direct_: blocks that are still missing
};

}  // namespace ox::fountain
