// From block and thread numbers to the frame, the row and the thread of a transform. All but
// map_frame_per_block's and flat_row_index's threads live to the end of the kernel, since the
// stages' barriers want every thread of a block.
#pragma once

#include <string>

#include "codegen/kernel_writer.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// One transform a block: tid, frame, batch. Blocks past NF leave whole.
void map_frame_per_block(KernelWriter& w);
// F transforms a block, TPF threads each, one block row a batch row: f_local, tid, frame, batch.
void map_frames_per_block(KernelWriter& w);
// `rows` transforms a block, `pitch` elements of `shbuf` each: tid, batch, brow, bufA. Threads of
// surplus rows work on the last row, `brow`, and ask `batch` only when they store.
void map_rows_in_block(KernelWriter& w, int rows, int pitch);

// A loop over `total` elements by blocks of 256 threads: `var`, and `row` from block index y.
void flat_row_index(KernelWriter& w, const std::string& var, const std::string& total,
                    const std::string& row = "row");
// Names the batch row `a` and the frame `b` of `row`.
void split_row(KernelWriter& w, const std::string& a, const std::string& b);
// Two rows through one complex transform: row0, row1, and the clamped r0c, r1c to load from.
void row_pair(KernelWriter& w);

// Names the roots of a double kernel `twsh`: in device memory, or copied to the start of the
// shared block. Nothing where the kernel computes its own.
void load_twiddles(KernelWriter& w, const StftConfig& config);

}  // namespace kevra::codegen
