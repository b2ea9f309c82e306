// The two cores of power-of-two frames that load straight into registers.
#pragma once

#include "codegen/kernel_writer.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// A frame by the 32 threads of a shuffle group, which exchange values without shared memory until
// the result is stored.
void emit_warp_transform(KernelWriter& w, const StftConfig& config);
// Stockham stages of which the first takes its values from the signal.
void emit_ept16_transform(KernelWriter& w, const StftConfig& config);

}  // namespace kevra::codegen
