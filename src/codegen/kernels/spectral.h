// Statistics of rows of magnitudes in device memory.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// What shapes the kernel's text. Takes (M, out, fstep, pp, amin, roll, n): one block a row of n
// magnitudes, one value a row out.
struct SpectralKernel {
  static constexpr const char* kName = "kevra_spectral";
  static constexpr int kBlock = 256;
  // Two sums a thread in double; float has room to spare.
  static constexpr size_t kSharedBytes = 2 * kBlock * sizeof(double);

  int prec;
  int stat;

  std::string key() const {
    return "spectral_" + std::to_string(storage_precision(prec)) + "_" + std::to_string(stat);
  }
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
