// Bands of a spectrum, and their table on the device.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"

namespace kevra::ops {

// Arrays of the caller's, borrowed for the length of a call. Band b has the bins bt[b] up to, not
// including, bt[b + 1]; bq[b] is a number of them.
struct BandTable {
  const int32_t* bt;
  int64_t edges;
  const int32_t* bq;
  int64_t n_bands;
};

// Both throw std::invalid_argument: for arrays whose lengths do not belong together; then for bands
// that descend, are empty or leave a spectrum of n bins, and for numbers beyond a band's width.
void check_band_edges(const BandTable& bands);
void check_bands(const BandTable& bands, int64_t n);

// The power of two that the widest band fits, 2 at least.
int64_t band_pad(const BandTable& bands);

// The edges on the current device, and right behind them the counts. Uploaded once; the first call
// for a table waits for the device.
devptr_t upload_bands(const BandTable& bands);

}  // namespace kevra::ops
