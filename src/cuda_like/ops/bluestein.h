// Transforms of lengths with a large prime factor, as a convolution with a chirp of padded length:
// in one block's shared memory where a row fits, else through device memory.
#pragma once

#include "codegen/kernels/bluestein.h"
#include "cuda_like/ops/fft.h"
#include "cuda_like/ops/rfft.h"

namespace kevra::ops {

// Both take every n and fall to the form through device memory themselves. Half storage always
// takes that form, and double real data does.
template <class T>
void bluestein_complex(const FftCall& call);
template <class T>
void bluestein_real(const RfftCall& call);

struct BluesteinCall {
  devptr_t x;
  devptr_t out;
  int64_t rows;
  int n;
  codegen::BluesteinMode mode;
  bool inverse = false;
  bool half = false;  // 16-bit storage, float arithmetic (float twin)
  int device = 0;
  stream_t stream = nullptr;
};

// The form through device memory, with one intermediate of rows * m complex values, m being the
// padded length. Complex rows may be transformed in place.
template <class T>
void bluestein_global(const BluesteinCall& call);

}  // namespace kevra::ops
