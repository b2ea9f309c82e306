// Real transforms whose rows live in registers: the load hands each thread the values of its first
// butterfly, shared memory only carries values between stages and, forward, the spectrum to be
// split. Same parameters and conventions as the kernel in shared memory (rfft.h).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "codegen/backend.h"
#include "codegen/kernels/fft_register_stages.h"
#include "codegen/kernels/rfft_parts.h"

namespace kevra::codegen {

struct RegisterRealFftKernel {
  RealRows data;
  std::vector<int> radices;      // the first is the number of values that a thread holds
  int transforms_per_block = 1;  // surplus ones repeat the last row

  RegisterLayout layout() const { return {data.length(), radices, true}; }
  int block() const { return layout().threads() * transforms_per_block; }
  int rows_per_block() const { return transforms_per_block * (data.paired() ? 2 : 1); }
  // Scalars of shared memory from one transform of a block to the next: the exchange, or forward
  // the whole spectrum.
  int pitch() const;
  size_t shared_bytes() const;
  std::string key() const;
};

std::string register_rfft_source(const RegisterRealFftKernel& kernel, const Backend& backend);

}  // namespace kevra::codegen
