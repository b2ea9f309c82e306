// Gradient of the tonal centroids: gc[p] = (sum over d of gy[d] (basis[d][p] - out[d])) / sum of c,
// and 0 where that sum is not positive.
#pragma once

#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// Takes (c, gy, gc, rows); a thread has a row.
struct TonnetzAdjointKernel {
  static constexpr const char* kName = "kevra_tonnetz_adj";
  static constexpr int kBlock = 256;

  int prec;  // float or double

  std::string key() const { return "tonnetz_adj_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
