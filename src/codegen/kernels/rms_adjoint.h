// Gradient of the root-mean-square energy per frame: gx = x times the sum of gy / (frame_length
// rms) over every place at which some frame reads the sample, reflected ones included.
#pragma once

#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// A thread has a sample and gathers, so that nothing is added in an order that may change. A silent
// frame passes nothing. Takes (x, rms, gy, gx, length, frames, frame_length, hop, pad), grid
// (samples, batch).
struct RmsAdjointKernel {
  static constexpr const char* kName = "kevra_rms_adj";
  static constexpr int kBlock = 256;

  int prec;  // float or double

  std::string key() const { return "rms_adj_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
