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

// In place on `call.x`, with no intermediate; `call.out` and `call.half` are not read. The forward
// transform leaves value k1 n2 + k2 at k2 n1 + k1, with the sides of four_step_sides(), where the
// inverse takes it: enough for a convolution.
template <class T>
void four_step_transposed(const FftCall& call);

// Even n only.
template <class T>
void four_step_real(const RfftCall& call);

}  // namespace kevra::ops
