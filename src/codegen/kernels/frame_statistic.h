// What a frame kernel does with a spectrum that it does not store: magnitudes into shared memory,
// and their statistic or their bands' contrasts from there.
#pragma once

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// The parameters that the statistic adds: in front of NFRAMES the bands bt and bq of the contrast,
// behind SIG_LEN the scalars fstep, pp, amin and roll.
void add_band_parameters(KernelSignature& signature, const StftConfig& config);
void add_statistic_parameters(KernelSignature& signature, const StftConfig& config);

// Behind the transform of a frame of the power-of-two cores: one value a frame to `out`, n_bands
// for the contrast. Every thread of the block runs it, frames past NFRAMES on zeros.
void emit_frame_statistic(KernelWriter& w, const StftConfig& config);

}  // namespace kevra::codegen
