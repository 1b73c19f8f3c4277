#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "fountain/block_buffer.h"
#include "fountain/block_source.h"
#include "fountain/direct_code.h"
#include "fountain/matrix_solver.h"
#include "fountain/message_shape.h"
#include "fountain/received_ids.h"
#include "fountain/wirehair.h"

namespace ox::fountain {

/// The encoder or decoder behind the flat interface, which has checked the pointers. Functions that
/// need memory throw std::bad_alloc; what they leave then is said at each.
class Codec {
  public:
    enum class Role : uint8_t { kNone, kEncoder, kDecoder };

    [[nodiscard]] Role role() const noexcept { return role_; }

    /// Takes a new role; the old message is forgotten. After a failure or an exception the role is
    /// kNone.
    WirehairResult start_encoder(const uint8_t* message, uint64_t message_bytes,
                                 uint32_t block_bytes);
    WirehairResult start_decoder(uint64_t message_bytes, uint32_t block_bytes);

    /// Encoder: writes a block, returns its length, 0 when `out_bytes` is less.
    uint32_t encode(uint32_t block_id, uint8_t* out, uint32_t out_bytes) const noexcept;

    /// Decoder. After an exception as if the block had not come.
    WirehairResult decode(uint32_t block_id, const uint8_t* block, uint32_t bytes);
    WirehairResult recover(uint8_t* message, uint64_t message_bytes) const noexcept;
    WirehairResult recover_block(uint32_t block_id, uint8_t* block, uint32_t& bytes) const noexcept;
    /// After an exception it is still the decoder.
    WirehairResult become_encoder();

  private:
    void keep_block(uint32_t block_id, const uint8_t* block, uint32_t bytes);
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

    /// What blocks are generated from: with matrix_ the intermediate blocks, with direct_ the
    /// source blocks (a decoder's hold those that it has not received).
    BlockBuffer blocks_;
    bool blocks_solved_ = false;

    // Decoder only.
    ReceivedIds received_;
    BlockBuffer received_blocks_;                           ///< the first N
    std::vector<std::unique_ptr<uint8_t[]>> extra_blocks_;  ///< those after NeedMore at N
    std::vector<const uint8_t*> extra_pointers_;
    uint32_t source_count_ = 0;  ///< source blocks received
    uint32_t wanting_ = 0;       ///< with direct_: blocks that are wanting still
};

}  // namespace ox::fountain
