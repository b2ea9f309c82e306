// What spectral features and contrast have in common: a few numbers of each frame's magnitudes, in
// one kernel from the signal or from magnitudes in device memory.
#pragma once

#include <cstdint>
#include <functional>

#include "codegen/stft_config.h"
#include "cuda_like/device.h"
#include "cuda_like/ops/band_table.h"
#include "cuda_like/ops/stft.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// The kernel's scalars in its order; what a statistic does not use counts for nothing. The contrast
// has bands, and is linear where roll is not 0.
struct StatisticArguments {
  double fstep = 0;
  double p = 0;
  double amin = 0;
  double roll = 0;
  const BandTable* bands = nullptr;
};

// From the signal in one kernel; `call` tells frames and window, its form counts for nothing.
// False, with nothing queued, where n_fft is no power of two or no block holds a frame and its
// magnitudes. Throws std::invalid_argument for sizes and windows out of bounds. Nothing is queued
// for no rows or bands.
template <class T>
bool frame_statistic(const StftCall& call, const codegen::FrameStatistic& statistic,
                     const StatisticArguments& arguments);

struct StatisticOptions {
  WindowSpec window;
  int64_t n_fft;
  int64_t hop;
  bool center;
};

// The two ways to the `width` numbers of a frame, in double: from the signal, which may say no, and
// from rows of magnitudes.
struct StatisticForms {
  int64_t width;
  std::function<bool(const StftCall& call)> signal;
  std::function<void(devptr_t m, devptr_t out, int64_t rows, int64_t bins)> reduce;
};

// y is (batch, samples); the result (batch, frames, width). Throws std::invalid_argument as
// frame_statistic does.
PinnedArray<double> staged_statistic(const HostArray<double>& y, const StatisticOptions& options,
                                     const StatisticForms& forms);

}  // namespace kevra::ops
