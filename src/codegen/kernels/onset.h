// Spectral flux per frame: out[t] = mean over bins of max(0, m[t] - m[t - 1]); 0 for an item's
// first frame.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// What shapes the kernel's text. Frames and bins are arguments of the kernel.
struct OnsetKernel {
  static constexpr const char* kName = "kevra_onset";
  // A block reduces one frame; the halving sum wants a power of two.
  static constexpr int kBlock = 256;

  int prec;

  std::string key() const { return "onset_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
  // One partial sum a thread, in the arithmetic type.
  size_t shared_bytes() const { return kBlock * (compute_precision(prec) == kDouble ? 8 : 4); }
};

}  // namespace kevra::codegen
