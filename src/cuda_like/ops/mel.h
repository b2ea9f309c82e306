// Bands of the short-time spectra of a signal: mel[frame][m] = sum of fb[m][k] |X[frame][k]|^power
// over the bins k, X being the short-time Fourier transform.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/filter_bank.h"
#include "cuda_like/hints.h"
#include "cuda_like/staged.h"
#include "cuda_like/window.h"

namespace kevra::ops {

struct MelOptions {
  FilterBank bank;
  int64_t n_fft;
  int64_t hop;
  bool center;
  double power;  // 1 or 2
  int form;      // output_form: magnitude is the square root of a band, db 10 log10(band + eps)
  double eps;
  WindowSpec window;
};

// batch x length samples in; batch x frames x n_mels real values out.
struct MelCall {
  devptr_t y;
  devptr_t mel;
  int64_t batch;
  int64_t length;
  MelOptions options;
  bool half = false;          // 16-bit storage, float arithmetic (float twin)
  bool half_compute = false;  // with `half`: 16-bit transforms where n_fft is a power of two
  int device = 0;
  stream_t stream = nullptr;
  const ShapeHint* override = nullptr;  // in place of the hint table; leaves no plan behind
};

// Throws std::invalid_argument for sizes, banks, windows, powers and eps out of bounds before
// anything is queued.
template <class T>
void mel_dispatch(const MelCall& call);

// prec picks twin and flags: 2 double, 1 float, 0 half storage, 3 half arithmetic as well.
void mel_resident(const MelCall& call, int prec);

// y is (batch, samples); the result (batch, frames, n_mels).
template <class T>
PinnedArray<T> mel_staged(const HostArray<T>& y, const MelOptions& options);

}  // namespace kevra::ops
