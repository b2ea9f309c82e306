// Gradients of the small features: energy per frame, onset strength, tonal coordinates.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/features.h"

namespace kevra::ops {

// All throw std::invalid_argument for half precision and for sizes as their forwards do, before
// anything is queued.

// x and gx are (batch, length), rms, the forward's result, and gy (batch, frames).
struct RmsAdjointCall {
  devptr_t x;
  devptr_t rms;
  devptr_t gy;
  devptr_t gx;
  RmsShape shape;
};
void rms_adjoint_resident(const RmsAdjointCall& call, int prec, int device, stream_t stream);

// m and gm are (batch, frames, bins), gy (batch, frames). Nothing is queued for no frames.
void onset_strength_adjoint_resident(devptr_t m, devptr_t gy, devptr_t gm, int64_t batch,
                                     int64_t frames, int64_t bins, int prec, int device,
                                     stream_t stream);

// c and gc are rows x 12, gy rows x 6. Nothing is queued for no rows.
void tonnetz_adjoint_resident(devptr_t c, devptr_t gy, devptr_t gc, int64_t rows, int prec,
                              int device, stream_t stream);

}  // namespace kevra::ops
