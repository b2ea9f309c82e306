// Tonal centroids of chroma vectors: six coordinates, of which pairs turn with the fifths, the
// minor thirds and the major thirds.
#pragma once

#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// kevra_tonnetz_basis(d, p) of type `t`: a device function of cases, which unrolled loops turn into
// literals.
std::string tonnetz_basis_function(const Backend& backend, const std::string& t);

// out[row][d] = sum over p of basis[d][p] c[row][p] / sum over p of c[row][p], and 0 where that sum
// is not positive. A thread has a row. Takes (c, out, rows).
struct TonnetzKernel {
  static constexpr const char* kName = "kevra_tonnetz";
  static constexpr int kBlock = 256;
  static constexpr int kClasses = 12;
  static constexpr int kCoordinates = 6;

  int prec;

  std::string key() const { return "tonnetz_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
