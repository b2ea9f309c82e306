// The way back from a spectrogram for frames that no block's shared memory holds: the bins go to
// device memory, through the ordinary inverse transforms, and the frames are windowed there.
#pragma once

#include "codegen/kernels/istft.h"
#include "cuda_like/ops/istft.h"
#include "cuda_like/ops/istft_sizes.h"

namespace kevra::ops {

// The kernels before and after the transform, and the tables that they read.
struct StagedFrames {
  codegen::IstftGather kernel{};
  kernel_t gather = nullptr;
  kernel_t apply_window = nullptr;
  devptr_t window = nullptr;
  devptr_t twiddles = nullptr;
};
StagedFrames staged_frames(const codegen::IstftKernel& kernel, devptr_t window, int device);

// Fills `frames`, [rows][frames][n_fft] in the precision of the arithmetic, from the first `rows`
// batch rows of z; rows x frames has to be a 32-bit number.
template <class T>
void make_staged_frames(const StagedFrames& plan, const IstftCall& call, const IstftSizes& sizes,
                        int64_t rows, devptr_t frames);

}  // namespace kevra::ops
