// From a spectrogram back to signals: each frame's inverse transform times the window,
// overlap-added and divided by the sum of the squared windows; samples that no window reaches are
// 0.
//
// D. W. Griffin and J. S. Lim, "Signal estimation from modified short-time Fourier transform",
// 1984: of all signals this one's transform lies nearest to the spectrogram.
#pragma once

#include <complex>
#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/hints.h"
#include "cuda_like/staged.h"
#include "cuda_like/window.h"

namespace kevra::ops {

// Bin k of frame f of batch row b is z[b * stride_batch + f * stride_frame + k * stride_bin], in
// complex values. y is batch rows of istft_length samples.
struct IstftCall {
  devptr_t z;
  devptr_t y;
  int64_t batch;
  int64_t bins;
  int64_t frames;
  int64_t stride_batch;
  int64_t stride_bin;
  int64_t stride_frame;
  int64_t n_fft;
  int64_t hop;
  bool center;          // the first and the last n_fft / 2 samples are padding
  int64_t length = -1;  // samples wanted, at most as many as there are; below 1: all
  WindowSpec window;
  bool half = false;  // 16-bit storage, float arithmetic (float twin)
  int device = 0;
  stream_t stream = nullptr;
  const ShapeHint* override = nullptr;  // in place of the hint table; leaves no plan behind
};

// Samples of a row of the result. Throws std::invalid_argument for sizes and windows that
// istft_dispatch does not take.
int64_t istft_length(const IstftCall& call);

// Queues nothing for results of no samples.
template <class T>
void istft_dispatch(const IstftCall& call);

// prec picks twin and storage: 2 double, 1 float, 0 and 3 half storage.
void istft_resident(const IstftCall& call, int prec);

// z is (batch, frames, bins); the result is (batch, samples).
struct IstftOptions {
  WindowSpec window;
  int64_t n_fft;
  int64_t hop;
  bool center;
  int64_t length;
};
template <class T>
PinnedArray<T> istft_staged(const HostArray<std::complex<T>>& z, const IstftOptions& options);

}  // namespace kevra::ops
