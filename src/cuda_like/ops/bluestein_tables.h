// The constant arrays of transforms by convolution with a chirp.
#pragma once

#include <complex>
#include <utility>
#include <vector>

#include "cuda_like/device.h"

namespace kevra::ops {

template <class T>
struct BluesteinArrays {
  // b[k] = exp(s i pi k^2 / n) for k below n; s is -1 forward, +1 inverse.
  std::vector<std::complex<T>> chirp;
  // The transform of length m of conj(b), which stands at k and, mirrored, at m - k.
  std::vector<std::complex<T>> filter;
};
template <class T>
BluesteinArrays<T> bluestein_arrays(int n, int m, bool inverse);

struct BluesteinTables {
  devptr_t chirp = nullptr;
  devptr_t filter = nullptr;
};

// Both on the current device, computed and uploaded at the first call. With sides other than 0 the
// filter is in the order of four_step_transposed().
template <class T>
BluesteinTables bluestein_tables(int n, int m, bool inverse, std::pair<int, int> sides = {0, 0});

}  // namespace kevra::ops
