// What the gradient operations share: the checks and sizes of those that lead back to a signal.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"

namespace kevra::ops {

// Throws std::invalid_argument with the text `refusal` for half storage: a gradient needs the range
// of a float.
void require_full_precision(
    int prec, const char* refusal = "adjoint: half gradients compute in f32; upcast the tensors");

// Frames of a padded signal, and the signal.
struct GradientSizes {
  int n_fft;
  int hop;
  int pad;
  int frames;
  int length;
  int64_t out_len;  // of the frames laid over each other

  int bins() const { return n_fft / 2 + 1; }
  // Values of one batch row before the frames' reflected parts are folded back: every frame for
  // itself, or all of them summed.
  int64_t raw(bool slots) const { return slots ? int64_t{frames} * n_fft : out_len; }
};

// Throws std::invalid_argument, naming `op`, for a batch below 0 and where a signal of `length`
// samples has another number of frames, or none.
GradientSizes gradient_sizes(const char* op, int64_t batch, int64_t length, int64_t frames,
                             int64_t n_fft, int64_t hop, bool center);

// Whether one block's shared memory holds a frame's transform of n_fft complex values.
bool gradient_is_fused(int n_fft, int prec, int device);

}  // namespace kevra::ops
