#pragma once

#include "fountain/code_params.h"

namespace ox::fountain {

/// The code of a message of `block_count` blocks, kMinBlocks .. kMaxBlocks: the same at the sender
/// and at the receiver. The peel seed is the table's; for a count that the table does not cover it
/// is found at the first use in a process, which takes about as long as it takes to solve an
/// encoder's matrix. Any thread. Throws std::bad_alloc.
CodeParams choose_code(uint32_t block_count);

}  // namespace ox::fountain
