// What the scan of a linear filter reads: the filter in a basis in which its state only shrinks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// In the basis of past outputs the powers of the companion matrix A grow to 10^6 and more before
// they shrink, and multiply each rounding of a state by that. The scan therefore runs on z = W s:
// z[m] is the error of the best prediction of s[m] from s[0] to s[m - 1] when the filter's input is
// white noise, over the power of two next to its size. There powers of a stable filter stay
// below 2. The predictors come from a by the Levinson recursion backwards; W holds them as they
// are rounded, its inverse L is exact to pairs of doubles. A filter that is not stable keeps the
// basis of past outputs.
struct LfilterBasisKernel {
  static constexpr const char* kName = "kevra_lfilter_basis";
  static constexpr int kBlock = 64;

  int p;
  int m1;
  int prec;    // of b and a; all that is written is double
  int seq;     // samples to a stretch
  int levels;  // powers: W A^(seq 2^l) L for l below

  std::string key() const;
  std::string source(const Backend& backend) const;
  size_t shared_bytes() const { return size_t{8} * (7 * p * p + 4 * p + 2 * seq); }

  // Where things stand in the block, in doubles.
  int64_t forward() const { return 0; }                // b
  int64_t feedback() const { return m1; }              // a
  int64_t response() const { return feedback() + p; }  // seq x p: what each input leaves in z
  int64_t powers() const { return response() + int64_t{seq} * p; }        // by columns
  int64_t inverse() const { return powers() + int64_t{levels} * p * p; }  // L by rows, high, low
  int64_t basis() const { return inverse() + int64_t{2} * p * p; }        // W by rows
  int64_t values() const { return basis() + int64_t{p} * p; }
};

}  // namespace kevra::codegen
