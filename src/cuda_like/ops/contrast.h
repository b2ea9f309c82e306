// Spectral contrast: for bands of each spectrum, the mean of the largest magnitudes less the mean
// of the smallest.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/band_table.h"
#include "cuda_like/ops/frame_statistic.h"
#include "cuda_like/ops/stft.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// The means of band b go over bq[b] magnitudes each.
struct ContrastOptions {
  BandTable bands;
  double amin;  // least magnitude that counts in decibels
  bool linear;  // a difference of magnitudes, not decibels
};

// All throw std::invalid_argument for bands that descend, are empty or leave the spectrum, for
// counts that a band does not have, and for sizes out of bounds before anything is queued. The
// first call for a table of bands waits for the device.

// y is (batch, length), out (batch, frames, n_bands), as frame_statistic tells; false for half
// storage, too.
bool contrast_signal_resident(const StftCall& call, const ContrastOptions& contrast, int prec);

// m is (rows, n), out (rows, n_bands). Nothing is queued for no rows or bands.
void contrast_reduce_resident(devptr_t m, devptr_t out, int64_t rows, int64_t n,
                              const ContrastOptions& contrast, int prec, int device,
                              stream_t stream);

// y is (batch, samples); the result (batch, frames, n_bands).
PinnedArray<double> contrast_staged(const HostArray<double>& y, const StatisticOptions& options,
                                    const ContrastOptions& contrast);

}  // namespace kevra::ops
