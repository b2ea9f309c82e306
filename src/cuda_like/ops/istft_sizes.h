// The sizes that the way back from a spectrogram works with, checked.
#pragma once

#include <cstdint>

#include "cuda_like/ops/istft.h"

namespace kevra::ops {

struct IstftSizes {
  int n_fft;
  int hop;
  int frames;
  int pad;
  int64_t out_len;  // of the overlap-added frames, padding included
  int64_t length;   // of a row of the result; 0 for one centred frame of an even n_fft
};

// Throws std::invalid_argument for sizes that cannot be served. Cheap enough for every call.
IstftSizes istft_sizes(const IstftCall& call);

// Throws std::invalid_argument where a sample between two frames has no window over it (the
// condition is known as NOLA: nonzero overlap-add). What has passed once is remembered.
void check_overlap(const WindowSpec& window, const IstftSizes& sizes);

}  // namespace kevra::ops
