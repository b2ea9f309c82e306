// The direct inverse of a constant-Q transform: every bin's values, times the bin's dual filter,
// are spectra of frames; frames of the signal, overlapped and added.
#pragma once

#include <complex>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "cuda_like/device.h"
#include "cuda_like/ops/cqt_tables.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

struct IcqtCall {
  devptr_t c;  // batch x n_bins x frames, complex
  devptr_t y;  // batch x length, real; overwritten
  int64_t batch;
  int64_t n_bins;
  int64_t frames;
  int64_t hop;  // in samples of y
  int64_t length;
  std::span<const DualRecord> octaves;
  std::string_view plan_key;  // stands for the octaves' dual filters; their tables are made once
  int device = 0;
  stream_t stream = nullptr;

  bool is_empty() const { return batch == 0 || frames == 0; }
};

// Throws std::invalid_argument unless bins of shape (batch, bins, frames) have n_bins and `frames`.
void check_bins(const std::vector<int64_t>& shape, int64_t n_bins, int64_t frames);

// prec picks the twin: 2 double, 1 float. Half is refused.
void icqt_direct_resident(const IcqtCall& call, int prec);

// c is (batch, n_bins, frames) as the call has it; the result (batch, length).
template <class T>
PinnedArray<T> icqt_direct_staged(const HostArray<std::complex<T>>& c, const IcqtCall& call);

}  // namespace kevra::ops
