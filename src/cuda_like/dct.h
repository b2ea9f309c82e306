// The discrete cosine transform of frames of bands, as a matrix on the device.
#pragma once

#include <cstdint>
#include <vector>

#include "cuda_like/device.h"

namespace kevra {

// Row k of n_out, over n_mels columns: row k of the orthonormal DCT-II, times the lifter's weight
// 1 + lifter / 2 sin(pi (k + 1) / lifter), which is 1 for a lifter of 0 and below. Rows past n_mels
// go on with the same cosines.
struct CosineMatrix {
  int64_t n_out;
  int64_t n_mels;
  double lifter;
};

// Row-major, computed in double.
std::vector<double> build_cosines(const CosineMatrix& matrix);

// The matrix on the current device, in double (`wide`) or float.
devptr_t cosine_table(const CosineMatrix& matrix, bool wide);

}  // namespace kevra
