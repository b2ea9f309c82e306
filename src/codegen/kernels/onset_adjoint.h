// Gradient of the onset strength: a bin that rises into a frame takes gy / bins there and gives the
// same in the frame before. Equal neighbours pass nothing.
#pragma once

#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// Takes (m, gy, gm, frames, bins); a block has a frame.
struct OnsetAdjointKernel {
  static constexpr const char* kName = "kevra_onset_adj";
  static constexpr int kBlock = 256;

  int prec;  // float or double

  std::string key() const { return "onset_adj_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
