// Transforms of lengths with a large prime factor, as a convolution with a chirp of padded length:
// in one block's shared memory where a row fits, else through device memory.
#pragma once

#include "cuda_like/ops/fft.h"
#include "cuda_like/ops/rfft.h"

namespace kevra::ops {

// Both take every n and fall to the form through device memory themselves. Half storage always
// takes that form.
template <class T>
void bluestein_complex(const FftCall& call);
template <class T>
void bluestein_real(const RfftCall& call);

}  // namespace kevra::ops
