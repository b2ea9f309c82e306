// The gradient of a function of signals made by istft_dispatch with respect to their spectrogram:
// gZ[k] = dE/dRe Z[k] + i dE/dIm Z[k] from gy = dE/dy. The divisor of the overlap-add, the sum of
// squared windows, does not depend on the spectrogram, so the operation is linear.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/window.h"

namespace kevra::ops {

struct IstftAdjointCall {
  devptr_t gy;  // batch x length reals
  devptr_t gz;  // batch x frames x (n_fft / 2 + 1) complex values, overwritten
  int64_t batch;
  int64_t length;  // samples past the last frame have no gradient to hand on
  int64_t n_fft;
  int64_t hop;
  bool center;
  int64_t frames;
  WindowSpec window;
  int device;
  stream_t stream;
};

// Throws std::invalid_argument for sizes and windows out of bounds before anything is queued.
// Queues nothing for no rows or frames.
template <class T>
void istft_adjoint_dispatch(const IstftAdjointCall& call);

// prec: 1 float, 2 double; half is refused.
void istft_adjoint_resident(const IstftAdjointCall& call, int prec);

}  // namespace kevra::ops
