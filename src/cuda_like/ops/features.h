// Frame features of a signal.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// Root-mean-square energy per frame, rows of `length` samples in, rows of `frames` values out.
// With `center` the signal is reflected around both ends by frame_length / 2.
struct RmsShape {
  int64_t batch;
  int64_t length;
  int64_t frames;
  int64_t frame_length;
  int64_t hop;
  bool center;
};

// Throws std::invalid_argument for sizes out of bounds.
void check_rms(const RmsShape& shape);

void rms_resident(devptr_t x, devptr_t out, const RmsShape& shape, int prec, int device,
                  stream_t stream);

// y is (batch, samples); the result (batch, frames).
template <class T>
PinnedArray<T> rms_staged(const HostArray<T>& y, int64_t frame_length, int64_t hop, bool center);

}  // namespace kevra::ops
