// A recursive filter over rows, as a scan over the filter's state.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/lfilter_basis.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// A block owns a row and goes over it in tiles of threads x seq samples. Each thread finds what its
// stretch of `seq` samples leaves in the state by itself, a scan over the stretches with powers of
// the filter gives each its true state, and the recursion from there gives the output.
//
// Samples are stored in type `prec`; state and sums are double in either twin. Direct form
// multiplies the rounding of its state by the gain of 1 / A(z), 10^4 and more for a narrow low-pass
// of order 4: in float such filters have no correct digit left. The double twin starts a stretch
// from pairs of doubles for the same reason.
struct LfilterKernel {
  static constexpr const char* kName = "kevra_lfilter";

  int p;
  int m1;
  int prec;
  int threads;  // a power of two
  int seq;

  std::string key() const;
  std::string source(const Backend& backend) const;

  int rounds() const;  // of the scan
  // The tile with its m1 - 1 samples of history, and in the same place, between two uses of the
  // tile, the states of all stretches, twice: a round of the scan reads one and writes the other.
  size_t shared_bytes() const;
  // What the kernel reads as `cf`. The first power also takes a tile's begin to its first stretch.
  LfilterBasisKernel basis() const { return {p, m1, prec, seq, std::max(rounds(), 1)}; }

 private:
  // One free slot behind every 16 samples puts neighbouring stretches of 16 on different banks.
  bool padded() const { return seq % 16 == 0; }
};

}  // namespace kevra::codegen
