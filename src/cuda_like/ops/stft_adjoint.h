// The gradient of a function of the short-time transform with respect to the signal, from its
// gradient with respect to the spectrogram. With G = dE/dRe X + i dE/dIm X, sample i of a frame
// receives w[i] Re(sum over the stored bins of conj(G[k]) exp(-2 pi i k i / n_fft)); frames add up,
// and padded samples fold back onto those that they reflect. Nothing is kept from the forward pass:
// the real forms compute the spectra anew.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/window.h"

namespace kevra::ops {

// Bin k of frame f of batch row b has its gradient at b * stride_batch + f * stride_frame + k *
// stride_bin.
struct StftAdjointCall {
  devptr_t g;   // complex values for the complex form, else reals
  devptr_t x;   // the forward pass's signal, batch x length; not read for the complex form
  devptr_t gx;  // batch x length, overwritten
  int64_t batch;
  int64_t length;
  int64_t frames;
  int64_t stride_batch;
  int64_t stride_bin;
  int64_t stride_frame;
  int64_t n_fft;
  int64_t hop;
  bool center;
  int form;    // output_form
  double eps;  // decibels are 10 log10(power + eps)
  WindowSpec window;
  int device;
  stream_t stream;
};

// Throws std::invalid_argument for sizes, windows and eps out of bounds before anything is queued.
// Queues nothing for no rows.
template <class T>
void stft_adjoint_dispatch(const StftAdjointCall& call);

// The entry points: `bins` as the caller counts them, prec 1 float or 2 double; half is refused.
// The second is that of the real forms and refuses the complex one.
void stft_adjoint_resident(const StftAdjointCall& call, int64_t bins, int prec);
void stft_adjoint_mode_resident(const StftAdjointCall& call, int64_t bins, int prec);

}  // namespace kevra::ops
