// Frames that lie over each other.
#pragma once

#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// Names t0 and t1, the first and the last of NF frames that cover `place`, an I64; none where t0 is
// above t1.
void emit_covering_frames(KernelWriter& w, const std::string& place, int n_fft, int hop);

}  // namespace kevra::codegen
