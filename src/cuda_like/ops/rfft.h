// The real transform: X[k] = sum of x[t] exp(-2 pi i t k / n) for k from 0 to n / 2, unscaled; the
// inverse takes those bins, mirrors them and scales by 1 / n.
#pragma once

#include <complex>
#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/hints.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// rows x n reals on the one side, rows x (n / 2 + 1) complex bins on the other, row-major.
struct RfftCall {
  devptr_t x;
  devptr_t out;
  int64_t rows;
  int n;
  bool inverse = false;
  bool half = false;  // 16-bit storage, float arithmetic (float twin)
  int device = 0;
  stream_t stream = nullptr;
  const ShapeHint* override = nullptr;  // in place of the hint table; leaves no plan behind
};

template <class T>
void rfft_dispatch(const RfftCall& call);

// prec picks twin and storage: 2 double, 1 float, 0 and 3 half storage.
void rfft_resident(devptr_t x, devptr_t out, int64_t rows, int64_t n, int prec, int device,
                   stream_t stream);
void irfft_resident(devptr_t x, devptr_t out, int64_t rows, int64_t n, int prec, int device,
                    stream_t stream);

// x is (rows, n); the result is (rows, n / 2 + 1).
template <class T>
PinnedArray<std::complex<T>> rfft_staged(const HostArray<T>& x);

// x is (rows, n / 2 + 1); the result is (rows, n).
template <class T>
PinnedArray<T> irfft_staged(const HostArray<std::complex<T>>& x, int64_t n);

}  // namespace kevra::ops
