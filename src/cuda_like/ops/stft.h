// The short-time Fourier transform: X[frame][k] = sum of w[i] s[frame hop + i] exp(-2 pi i k i /
// n_fft), s being the signal, reflected by n_fft / 2 at both ends when centred.
#pragma once

#include <complex>
#include <cstdint>
#include <string>

#include "codegen/stft_config.h"
#include "cuda_like/device.h"
#include "cuda_like/hints.h"
#include "cuda_like/staged.h"
#include "cuda_like/window.h"

namespace kevra::ops {

// batch x length samples in; batch x frames x (n_fft / 2 + 1) bins out, complex or real by `form`.
struct StftCall {
  devptr_t y;
  devptr_t out;
  int64_t batch;
  int64_t length;
  int64_t n_fft;
  int64_t hop;
  bool center;
  int form = 0;        // output_form
  double eps = 1e-10;  // decibels are 10 log10(power + eps)
  WindowSpec window;
  bool half = false;          // 16-bit storage, float arithmetic (float twin)
  bool half_compute = false;  // with `half`: 16-bit arithmetic where n_fft is a power of two
  int device = 0;
  stream_t stream = nullptr;
  const ShapeHint* override = nullptr;  // in place of the hint table; leaves no plan behind
};

// Throws std::invalid_argument for sizes, windows and eps out of bounds before anything is queued.
template <class T>
void stft_dispatch(const StftCall& call);

// The precisions of a call's arithmetic and storage.
struct FramePrecision {
  int compute;
  int storage;
  int hint_bits() const;  // what hint keys know the two as
};
FramePrecision frame_precision(int64_t n_fft, bool wide, bool half, bool half_compute);

// prec picks twin and flags: 2 double, 1 float, 0 half storage, 3 half arithmetic as well.
void stft_resident(const StftCall& call, int prec);

// y is (batch, samples); the result (batch, frames, bins). Element is T for the real forms and
// std::complex<T> for the complex one.
struct StftOptions {
  WindowSpec window;
  int64_t n_fft;
  int64_t hop;
  bool center;
  int form;
  double eps;
};
template <class T, class Element>
PinnedArray<Element> stft_staged(const HostArray<T>& y, const StftOptions& options);

}  // namespace kevra::ops
