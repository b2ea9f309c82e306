// Convolution of rows: what stands around the transforms of the FFT route, and the direct sum.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// All of these go over a row by blocks of 256 threads; block index y is the row.

// Rows of n values, converted to the arithmetic type and followed by zeros up to `plen`.
struct ConvPadKernel {
  static constexpr const char* kName = "kevra_convpad";

  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// z *= w, spectra of nb bins; with `bstride` 0 all rows of z meet the one row of w.
struct ConvMultiplyKernel {
  static constexpr const char* kName = "kevra_convmul";

  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// y = x[start ... start + outlen) of rows of nf values, converted to the storage type.
struct ConvSliceKernel {
  static constexpr const char* kName = "kevra_convslice";

  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// y[i] = sum of b[j] a[start + i - j] over the j where both have a value; with `bshare` all rows of
// a meet the one row of b.
struct ConvDirectKernel {
  static constexpr const char* kName = "kevra_convdir";

  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
