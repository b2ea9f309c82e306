// Banks of filters over the bins of a spectrum, and their tables on the device: any real matrix of
// bands by bins.
#pragma once

#include <cstdint>
#include <vector>

#include "cuda_like/device.h"

namespace kevra {

// A bank of the caller's, row-major, borrowed for the length of a call.
struct FilterBank {
  const double* weights;
  int64_t n_mels;
  int64_t bins;
  // Of a sample of the weights where there are more than 512 of them: banks that differ between
  // the samples count as one.
  uint64_t hash;
};
FilterBank filter_bank(const double* weights, int64_t n_mels, int64_t bins);

// Throws std::invalid_argument, naming `op`, for a bank that does not fit n_fft / 2 + 1 bins or
// has more weights than the kernels index.
void check_filter_bank(const char* op, const FilterBank& bank, int64_t n_fft);

// Row m is w[off[m]] .. w[off[m + 1] - 1], from its first to its last non-zero weight, and starts
// at bin lo[m]. Bin k's first row is b0[k] with weight w0[k], the last of its other rows b1[k] with
// w1[k]; -1 and 0 where there is none.
struct PackedFilterBank {
  std::vector<int32_t> lo, off, b0, b1;
  std::vector<double> w, w0, w1;
  bool crowded = false;  // some bin has a third row, which b0 and b1 do not name
};
PackedFilterBank pack_filter_bank(const FilterBank& bank);

// The packed arrays on the device, weights in double (`wide`) or float.
struct FilterBankTable {
  devptr_t lo, off, b0, b1, w, w0, w1;
  bool crowded;
};
// Of the current device; built at the first call for its hash and kept for good. Takes a mutex of
// its own before runtime_mutex: not to be called under the latter.
FilterBankTable filter_bank_table(const FilterBank& bank, bool wide);

}  // namespace kevra
