// Gradients of the statistics of rows of magnitudes: what a row's number passes back to them.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// What shapes the kernel's text. Takes (M, gy, gM, n, fstep, pp, amin): one block a row of n
// magnitudes, one incoming gradient a row. `stat` is the centroid, the bandwidth or the flatness; a
// rolloff moves from bin to bin and has no gradient.
struct SpectralAdjointKernel {
  static constexpr const char* kName = "kevra_spectral_adj";
  static constexpr int kBlock = 256;  // the halving sums want a power of two

  int prec;  // float or double
  int stat;

  std::string key() const {
    return "spectral_adj_" + std::to_string(stat) + "_" + std::to_string(prec);
  }
  std::string source(const Backend& backend) const;
  // Two sums a thread.
  size_t shared_bytes() const { return 2 * kBlock * (prec == kDouble ? 8 : 4); }
};

}  // namespace kevra::codegen
