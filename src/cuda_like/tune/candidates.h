// The variants of each operation that are worth a measurement. The all-zero record comes first in
// every list and stands for what the dispatcher does unasked.
#pragma once

#include <vector>

#include "cuda_like/hints.h"

namespace kevra::tune {

// Frames of n_fft samples: the short-time transform and what is computed from its spectra.
std::vector<ShapeHint> stft_candidates(int n);
// The way back from spectra, and frames whose length is no power of two: threads to a frame, and
// padding.
std::vector<ShapeHint> frame_candidates();

// Complex rows of n elements. `half` adds what only half storage has.
std::vector<ShapeHint> fft_candidates(int n, bool half);
// Elements that a thread of a register kernel may hold.
std::vector<int> ept_candidates(int n);

}  // namespace kevra::tune
