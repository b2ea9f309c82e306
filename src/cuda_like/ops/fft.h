// The complex transform: X[k] = sum of x[j] exp(-2 pi i j k / n), unscaled; the inverse is its
// conjugate times 1 / n.
#pragma once

#include <complex>
#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/hints.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// rows x n complex elements, row-major; out may be x.
struct FftCall {
  devptr_t x;
  devptr_t out;
  int64_t rows;
  int n;
  bool inverse = false;
  bool half = false;  // 16-bit storage, float arithmetic (float twin)
  bool pair = false;  // with `half`: two rows in half arithmetic where a kernel has it
  int device = 0;
  stream_t stream = nullptr;
  const ShapeHint* override = nullptr;  // in place of the hint table; leaves no plan behind
};

template <class T>
void fft_dispatch(const FftCall& call);

// prec picks twin and flags: 2 double, 1 float, 0 half storage, 3 half storage packed.
void fft_resident(devptr_t x, devptr_t out, int64_t rows, int64_t n, bool inverse, int prec,
                  int device, stream_t stream);

// x is (rows, n); so is the result.
template <class T>
PinnedArray<std::complex<T>> fft_staged(const HostArray<std::complex<T>>& x, bool inverse);

}  // namespace kevra::ops
