// Root-mean-square energy per frame: out[row] = sqrt(sum of x^2 over the frame / frame_length).
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// What shapes the kernel's text. Lengths, hop and pad are arguments of the kernel.
struct RmsKernel {
  static constexpr const char* kName = "kevra_rms";
  // A block reduces one frame; the halving sum wants a power of two.
  static constexpr int kBlock = 256;

  int prec;

  std::string key() const { return "rms_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
  // One partial sum a thread, in the arithmetic type.
  size_t shared_bytes() const { return kBlock * (compute_precision(prec) == kDouble ? 8 : 4); }
};

}  // namespace kevra::codegen
