// One number of each spectrum: centroid, bandwidth, flatness or rolloff of its magnitudes m[i] at
// the frequencies fstep i.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/frame_statistic.h"
#include "cuda_like/ops/stft.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

struct SpectralStatistic {
  int stat;      // 0 centroid, 1 bandwidth, 2 flatness, 3 rolloff
  double fstep;  // the distance of two bins, in the unit of the result
  double p;      // exponent of the bandwidth
  double amin;   // least power that counts in the flatness
  double roll;   // share of the sum below the rolloff
};

// All throw std::invalid_argument for a stat, an exponent and sizes out of bounds before anything
// is queued.

void check_statistic(const SpectralStatistic& statistic);

// y is (batch, length), out (batch, frames), as frame_statistic tells; false for half storage, too.
bool spectral_signal_resident(const StftCall& call, const SpectralStatistic& statistic, int prec);

// m is (rows, n), out (rows). Nothing is queued for no rows.
void spectral_reduce_resident(devptr_t m, devptr_t out, int64_t rows, int64_t n,
                              const SpectralStatistic& statistic, int prec, int device,
                              stream_t stream);

// y is (batch, samples); the result (batch, frames).
PinnedArray<double> spectral_staged(const HostArray<double>& y, const StatisticOptions& options,
                                    const SpectralStatistic& statistic);

}  // namespace kevra::ops
