#include "fountain/codec.h"

#include <algorithm>
#include <cstring>

#include "fountain/block_solver.h"

namespace ox::fountain {

WirehairResult Codec::start_encoder(const uint8_t* message, uint64_t message_bytes,
                                    uint32_t block_bytes) {
    role_ = Role::kNone;
    blocks_solved_ = false;
    const WirehairResult cut = cut_message(message_bytes, block_bytes, shape_);
    if (cut != Wirehair_Success) return cut;
    params_ = choose_code(shape_.block_count);
    direct_ = DirectCode::find(shape_.block_count);
    if (direct_ != nullptr) {
        blocks_.reset(shape_.block_count, block_bytes);
        for (uint32_t id = 0; id < shape_.block_count; ++id) {
            copy_padded(blocks_.at(id), message + size_t{id} * block_bytes, shape_.bytes_of(id));
        }
        role_ = Role::kEncoder;
        return Wirehair_Success;
    }

    if (source_matrix_ != shape_.block_count) {
        source_matrix_ = 0;
        matrix_.reset(params_);
        for (uint32_t id = 0; id < shape_.block_count; ++id)
            matrix_.add_row(id);
        if (!matrix_.solve()) return Wirehair_BadPeelSeed;
        source_matrix_ = shape_.block_count;
    }
    const auto last = std::make_unique<uint8_t[]>(block_bytes);
    const uint32_t full_blocks = shape_.block_count - 1;
    std::memcpy(last.get(), message + uint64_t{full_blocks} * block_bytes, shape_.final_bytes);
    const uint8_t* const others = last.get();
    solve_blocks({message, block_bytes, full_blocks, &others});
    role_ = Role::kEncoder;
    return Wirehair_Success;
}

WirehairResult Codec::start_decoder(uint64_t message_bytes, uint32_t block_bytes) {
    role_ = Role::kNone;
    blocks_solved_ = false;
    complete_ = false;
    const WirehairResult cut = cut_message(message_bytes, block_bytes, shape_);
    if (cut != Wirehair_Success) return cut;
    params_ = choose_code(shape_.block_count);
    direct_ = DirectCode::find(shape_.block_count);
    missing_ = shape_.block_count;
    matrix_ready_ = false;
    source_matrix_ = 0;
    source_count_ = 0;
    extra_blocks_.clear();
    extra_pointers_.clear();
    // Each extra block that is kept solves one more column of the elimination.
    received_.reset(shape_.block_count + params_.columns());
    received_blocks_.reset(shape_.block_count, block_bytes);
    role_ = Role::kDecoder;
    return Wirehair_Success;
}

void Codec::solve_blocks(const BlockSource& source) {
    blocks_.reset(params_.columns(), shape_.block_bytes);
    BlockSolver(matrix_, source, blocks_, shape_.block_bytes).run();
    blocks_solved_ = true;
}

void Codec::generate_directly(uint32_t block_id, uint8_t* out, size_t bytes) const noexcept {
    if (block_id < shape_.block_count) {
        std::memcpy(out, blocks_.at(block_id), bytes);
        return;
    }
    const DirectCode::Factors factors = direct_->factors(block_id);
    gf256_mul_mem(out, blocks_.at(0), factors[0], bytes);
    for (uint32_t id = 1; id < shape_.block_count; ++id) {
        gf256_muladd_mem(out, factors[id], blocks_.at(id), bytes);
    }
}

void Codec::generate(uint32_t block_id, uint8_t* out, size_t bytes) const noexcept {
    if (direct_ != nullptr) return generate_directly(block_id, out, bytes);
    const CodeRow row(params_, block_id);
    BlockSum sum(out, bytes);
    row.for_each_peel_column([&](uint16_t column) { sum.add(blocks_.at(column)); });
    for (const uint16_t column : row.mix_columns()) {
        sum.add(blocks_.at(size_t{params_.block_count} + column));
    }
}

uint32_t Codec::encode(uint32_t block_id, uint8_t* out, uint32_t out_bytes) const noexcept {
    const uint32_t bytes = shape_.bytes_of(block_id);
    if (out_bytes < bytes) return 0;
    generate(block_id, out, bytes);
    return bytes;
}

BlockSource Codec::received_source() const noexcept {
    return {received_blocks_.at(0), received_blocks_.pitch(), shape_.block_count,
            extra_pointers_.data()};
}

void Codec::drop_last_block() noexcept {
    if (received_.ids().back() < shape_.block_count) --source_count_;
    received_.drop_last();
    if (received_.size() < shape_.block_count) return;
    extra_blocks_.pop_back();
    extra_pointers_.pop_back();
}

void Codec::copy_padded(uint8_t* to, const uint8_t* block, uint32_t bytes) const noexcept {
    std::memcpy(to, block, bytes);
    std::memset(to + bytes, 0, shape_.block_bytes - bytes);
}

void Codec::store_block(uint32_t block_id, const uint8_t* block, uint32_t bytes) {
    uint8_t* place = nullptr;
    if (received_.size() < shape_.block_count) {
        place = received_blocks_.at(received_.size());
    } else {
        extra_pointers_.reserve(extra_pointers_.size() + 1);
        extra_blocks_.push_back(std::make_unique_for_overwrite<uint8_t[]>(shape_.block_bytes));
        place = extra_blocks_.back().get();
        extra_pointers_.push_back(place);
    }
    copy_padded(place, block, bytes);
    received_.append(block_id);
    if (block_id < shape_.block_count) ++source_count_;
}

bool Codec::solve_matrix() {
    matrix_.reset(params_);
    for (const uint32_t id : received_.ids())
        matrix_.add_row(id);
    const bool solved = matrix_.solve();
    matrix_ready_ = true;
    return solved;
}

bool Codec::complete_by_matrix(bool& kept) {
    const bool solved =
        matrix_ready_ ? matrix_.add_extra_row(received_.ids().back(), kept) : solve_matrix();
    if (solved) solve_blocks(received_source());
    return solved;
}

bool Codec::complete_directly(bool& kept) {
    DirectSolution solution;
    const uint32_t missing = solution.solve(*direct_, received_.ids());
    kept = missing < missing_;
    if (missing == 0) {
        blocks_.reset(shape_.block_count, shape_.block_bytes);
        const BlockSource source = received_source();
        for (size_t i = 0; i < solution.missing().size(); ++i) {
            uint8_t* const block = blocks_.at(solution.missing()[i]);
            const std::span<const uint8_t> factors = solution.factors(i);
            gf256_mul_mem(block, source.at(0), factors[0], shape_.block_bytes);
            for (uint32_t number = 1; number < factors.size(); ++number) {
                gf256_muladd_mem(block, factors[number], source.at(number), shape_.block_bytes);
            }
        }
    }
    missing_ = missing;
    return missing == 0;
}

// With the newest block kept: does what is held suffice now? A block that adds nothing to an
// insufficient set is dropped again.
bool Codec::try_to_complete() {
    if (received_.size() < shape_.block_count) return false;
    if (source_count_ == shape_.block_count) return true;
    try {
        bool kept = true;
        const bool solved = direct_ != nullptr ? complete_directly(kept) : complete_by_matrix(kept);
        if (!kept) drop_last_block();
        return solved;
    } catch (...) {
        matrix_ready_ = false;
        drop_last_block();
        throw;
    }
}

WirehairResult Codec::decode(uint32_t block_id, const uint8_t* block, uint32_t bytes) {
    const uint32_t expected = shape_.bytes_of(block_id);
    if (bytes != expected && bytes != shape_.block_bytes) return Wirehair_InvalidInput;
    if (complete_) return Wirehair_Success;
    if (received_.find(block_id) != ReceivedIds::kNone) return Wirehair_NeedMore;
    store_block(block_id, block, expected);
    complete_ = try_to_complete();
    return complete_ ? Wirehair_Success : Wirehair_NeedMore;
}

void Codec::write_source_block(uint32_t block_id, uint8_t* out) const noexcept {
    const uint32_t bytes = shape_.bytes_of(block_id);
    const uint32_t number = received_.find(block_id);
    if (number == ReceivedIds::kNone) {
        generate(block_id, out, bytes);
    } else {
        std::memcpy(out, received_source().at(number), bytes);
    }
}

WirehairResult Codec::recover(uint8_t* message, uint64_t message_bytes) const noexcept {
    if (message_bytes != shape_.message_bytes) return Wirehair_InvalidInput;
    if (!complete_) return Wirehair_NeedMore;
    for (uint32_t id = 0; id < shape_.block_count; ++id) {
        write_source_block(id, message + uint64_t{id} * shape_.block_bytes);
    }
    return Wirehair_Success;
}

WirehairResult Codec::recover_block(uint32_t block_id, uint8_t* block,
                                    uint32_t& bytes) const noexcept {
    if (block_id >= shape_.block_count) return Wirehair_InvalidInput;
    if (!complete_) return Wirehair_NeedMore;
    write_source_block(block_id, block);
    bytes = shape_.bytes_of(block_id);
    return Wirehair_Success;
}

WirehairResult Codec::become_encoder() {
    if (!complete_) return Wirehair_NeedMore;
    if (direct_ != nullptr) {
        if (source_count_ == shape_.block_count) {
            blocks_.reset(shape_.block_count, shape_.block_bytes);
        }
        for (uint32_t number = 0; number < received_.size(); ++number) {
            const uint32_t id = received_.ids()[number];
            if (id >= shape_.block_count) continue;
            std::memcpy(blocks_.at(id), received_source().at(number), shape_.block_bytes);
        }
    } else if (!blocks_solved_) {
        if (!solve_matrix()) return Wirehair_BadPeelSeed;
        solve_blocks(received_source());
    }
    role_ = Role::kEncoder;
    received_blocks_ = BlockBuffer();
    extra_blocks_.clear();
    extra_pointers_.clear();
    return Wirehair_Success;
}

}  // namespace ox::fountain
