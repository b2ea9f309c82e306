// The short-time transform of frames that no block's shared memory holds: the frames go to device
// memory, and the ordinary transforms over them.
#pragma once

#include "codegen/stft_config.h"
#include "cuda_like/ops/stft.h"

namespace kevra::ops {

// `config` tells pad, frames, form and storage; its choice of a kernel is not read. Needs memory
// for the frames and for a spectrum. Throws std::invalid_argument for more frames in all than a
// transform takes rows.
template <class T>
void staged_stft(const StftCall& call, const codegen::StftConfig& config);

}  // namespace kevra::ops
