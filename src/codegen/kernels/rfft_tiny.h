// Real transforms of one, two and three samples: a row in each thread, written out.
#pragma once

#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/rfft_parts.h"

namespace kevra::codegen {

// Takes (x, out, nrows), or (X, out, nrows) for the inverse.
struct TinyRealFftKernel {
  static constexpr const char* kName = "kevra_rfft_tiny";
  static constexpr int kBlock = 256;  // rows to a block

  RealRows data;

  std::string key() const;
};

std::string tiny_rfft_source(const TinyRealFftKernel& kernel, const Backend& backend);

}  // namespace kevra::codegen
