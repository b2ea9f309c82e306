// Real transforms of whole rows in shared memory, and back: X[k] = sum of x[t] exp(-2 pi i k t / n)
// for k from 0 to n / 2, unscaled; the inverse scales by 1 / n and ignores the imaginary parts of
// bin 0 and, for even n, of bin n / 2.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "codegen/backend.h"
#include "codegen/kernels/rfft_parts.h"

namespace kevra::codegen {

// What shapes the kernel's text. An odd n takes one transform, two rows, to a block.
struct RealFftKernel {
  RealRows data;
  int tpf = 1;                   // threads to a transform
  int transforms_per_block = 1;  // surplus ones repeat the last row
  bool padded = false;           // not with a prime stage, whose scratch follows the data
  bool radix25 = false;

  std::string key() const;
  std::vector<int> radices() const;
  // Elements of shared memory from one transform of a block to the next.
  int pitch() const;
  int block() const { return tpf * transforms_per_block; }
  int rows_per_block() const { return transforms_per_block * (data.paired() ? 2 : 1); }
  size_t shared_bytes() const;
};

std::string real_fft_source(const RealFftKernel& kernel, const Backend& backend);

}  // namespace kevra::codegen
