// The coefficient block that callers keep of a linear filter.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// From `m1` values b and `p` values a: b, a, then A^(16 2^l) for l from 0 to 7, p x p each and
// row-major, A being the companion matrix.
struct LfilterPackKernel {
  static constexpr const char* kName = "kevra_lfilter_pack";
  static constexpr int kBlock = 64;
  static constexpr int kSeq = 16;
  static constexpr int kLevels = 8;

  int p;
  int m1;
  int prec;  // float or double

  std::string key() const;
  std::string source(const Backend& backend) const;
  size_t shared_bytes() const { return size_t{8} * 4 * p * p; }
};

}  // namespace kevra::codegen
