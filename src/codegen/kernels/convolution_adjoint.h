// The gradient of a convolution: what stands in front of its transforms and behind them.
#pragma once

#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// Rows of `len` values into rows of nf at offset `off`, in the arithmetic type; turned around, and
// conjugated, where the record says so. Block index y is the row. Takes (x, out, len, nf, off).
struct ConvStageKernel {
  static constexpr const char* kName = "kevra_convstage";

  int prec;  // complex values have no half storage
  bool is_complex;
  bool reversed = false;
  bool conjugated = false;  // of complex values

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// y[j] = the sum of x[r][j] over the rows r in their order, in the storage type. Takes (x, y, rows,
// len).
struct ConvRowSumKernel {
  static constexpr const char* kName = "kevra_convrowsum";

  int prec;
  bool is_complex;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
