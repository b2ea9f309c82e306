// The gradient of a function of mel bands back to the signal: through the form of output to the
// weighted sums, through the bank to what it is applied to, and from the bins as the short-time
// transform's gradient goes. Nothing is kept from the forward pass: the spectra are computed anew.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/mel.h"

namespace kevra::ops {

// Band m of frame f of batch row b has its gradient at b * stride_batch + f * stride_frame + m *
// stride_bin.
struct MelAdjointCall {
  devptr_t g;
  devptr_t x;   // the forward pass's signal, batch x length
  devptr_t gx;  // batch x length, overwritten
  int64_t batch;
  int64_t length;
  int64_t frames;
  int64_t stride_batch;
  int64_t stride_bin;
  int64_t stride_frame;
  MelOptions options;
  int device = 0;
  stream_t stream = nullptr;
};

// Throws std::invalid_argument for sizes, banks, windows, powers and eps out of bounds before
// anything is queued. Queues nothing for no rows.
template <class T>
void mel_adjoint_dispatch(const MelAdjointCall& call);

// `n_mels` as the caller counts them, prec 1 float or 2 double; half is refused.
void mel_adjoint_resident(const MelAdjointCall& call, int64_t n_mels, int prec);

}  // namespace kevra::ops
