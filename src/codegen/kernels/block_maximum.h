// The largest value among the threads of a block.
#pragma once

#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// red[0]: the largest of the threads' `value`, behind a barrier. `red` is a shared array of as many
// elements as the block has threads, a power of two; `tid` is the thread. NaN loses.
void emit_block_maximum(KernelWriter& w, const std::string& value, int threads);

}  // namespace kevra::codegen
