// Signals from magnitudes alone: the phases come out of an iteration between spectrum and signal.
//
// D. W. Griffin and J. S. Lim, "Signal estimation from modified short-time Fourier transform",
// 1984; with momentum N. Perraudin, P. Balazs and P. L. Soendergaard, "A fast Griffin-Lim
// algorithm", 2013.
#pragma once

#include <complex>
#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/staged.h"
#include "cuda_like/window.h"

namespace kevra::ops {

struct GriffinLimOptions {
  WindowSpec window;
  int64_t n_fft;
  int64_t hop;
  bool center;
  int64_t n_iter;   // below 1: the inverse of the planes as given
  double momentum;  // 0: plain Griffin-Lim
  int64_t length;   // samples wanted, at most as many as there are; below 1: all
};

// s and angles are (batch, frames, bins), real magnitudes and complex numbers of size 1; angles are
// overwritten by the last ones of the iteration. y is batch rows of as many samples as the way back
// from such a spectrum gives.
struct GriffinLimCall {
  devptr_t s;
  devptr_t angles;
  devptr_t y;
  int64_t batch;
  int64_t frames;
  int64_t bins;
  GriffinLimOptions options;
  int device = 0;
  stream_t stream = nullptr;
};

// prec 1 float, 2 double; half planes are refused. Nothing is queued for no rows.
void griffinlim_resident(const GriffinLimCall& call, int prec);

// Both planes are (batch, frames, bins); the result is (batch, samples).
template <class T>
PinnedArray<T> griffinlim_staged(const HostArray<T>& s, const HostArray<std::complex<T>>& angles,
                                 const GriffinLimOptions& options);

}  // namespace kevra::ops
