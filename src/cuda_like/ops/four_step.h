// Transforms too long for one block's shared memory: n = n1 n2, the columns first, then the rows,
// with one intermediate in device memory between the two.
#pragma once

#include "cuda_like/ops/fft.h"
#include "cuda_like/ops/rfft.h"

namespace kevra::ops {

// Input and output are each at full precision or in 16-bit storage; `call.half` and the flags
// behind it are not read. Throws std::invalid_argument for an n that does not split.
template <class T>
void four_step_complex(const FftCall& call, bool full_in, bool full_out);

// Even n only.
template <class T>
void four_step_real(const RfftCall& call);

}  // namespace kevra::ops
