// Linear convolution of rows with one kernel, or with a kernel each.
#pragma once

#include <complex>
#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// c[r] = a[r] * b[r], and of it y[r][j] = c[r][start + j] for j < outlen.
struct ConvolutionCall {
  devptr_t a;  // rows x n
  devptr_t b;  // rows x m, or 1 x m for all rows
  devptr_t y;  // rows x outlen
  int64_t rows;
  int64_t rows_b;  // any number but `rows` means that b has one row
  int64_t n;
  int64_t m;
  int64_t start;
  int64_t outlen;

  bool shares_b() const { return rows_b != rows; }
};

// Through transforms of length nf. Below n + m - 1 the convolution wraps around; below n or m it is
// refused, and so is an output beyond nf. prec 0 is half storage, for the complex form float.
void conv_fft_resident(const ConvolutionCall& call, int64_t nf, int prec, int device,
                       stream_t stream);
void conv_cplx_resident(const ConvolutionCall& call, int64_t nf, int prec, int device,
                        stream_t stream);
// A sum for each output. prec 0 is half storage with float arithmetic.
void conv_direct_resident(const ConvolutionCall& call, int prec, int device, stream_t stream);

// a is (rows, n), b (rows or 1, m); the result (rows, outlen).
template <class T>
PinnedArray<T> conv_fft_staged(const HostArray<T>& a, const HostArray<T>& b, int64_t nf,
                               int64_t start, int64_t outlen);
template <class T>
PinnedArray<std::complex<T>> conv_cplx_staged(const HostArray<std::complex<T>>& a,
                                              const HostArray<std::complex<T>>& b, int64_t nf,
                                              int64_t start, int64_t outlen);
template <class T>
PinnedArray<T> conv_direct_staged(const HostArray<T>& a, const HostArray<T>& b, int64_t start,
                                  int64_t outlen);

}  // namespace kevra::ops
