// Complex transforms of whole rows in shared memory: X[k] = sum over j of x[j] exp(-2 pi i j k /
// n), unscaled; the inverse is its conjugate over n.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "codegen/backend.h"
#include "codegen/kernels/fft_parts.h"

namespace kevra::codegen {

// What shapes the kernel's text; the number of rows is an argument of the kernel, which takes
// (x, out, tw, nrows). `out` may be `x`.
struct ComplexFftKernel {
  static constexpr const char* kName = kFftKernelName;

  int n;
  int compute;  // precision of the arithmetic: half storage computes in float
  int storage;
  bool inverse = false;
  int tpf = 1;             // threads to a row
  int rows_per_block = 1;  // the grid covers all rows; surplus rows repeat the last one
  bool padded = false;     // not with a prime stage, whose scratch follows the n-th element
  bool radix25 = false;

  std::string key() const;
  std::vector<int> radices() const;
  // Elements of shared memory from one row of a block to the next.
  int pitch() const;
  int block() const { return tpf * rows_per_block; }
  size_t shared_bytes() const;
};

std::string complex_fft_source(const ComplexFftKernel& kernel, const Backend& backend);

}  // namespace kevra::codegen
