// The vector kernels of the conjugate-gradient solver. Rows of a batch are systems of their own;
// all scalars stay in device memory, one a system, so that an iteration needs no answer from the
// device.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// out[row] = sum over n of u v; one block of 256 threads a row, the row being block index x. Takes
// (u, v, out, n).
struct VectorDotKernel {
  static constexpr const char* kName = "kevra_vdot";
  // A block reduces one row; the halving sum wants a power of two.
  static constexpr int kBlock = 256;

  int prec;

  std::string key() const { return "vdot_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
  // One partial sum a thread.
  size_t shared_bytes() const { return kBlock * (prec == kDouble ? 8 : 4); }
};

// y = a x + c y, the factors by row; block index y is the row. Takes (x, y, a, c, n).
struct VectorUpdateKernel {
  static constexpr const char* kName = "kevra_vaxpby";
  static constexpr int kBlock = 256;

  int prec;

  std::string key() const { return "vaxpby_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
};

// The step alpha = rs / pap, as factors for y += alpha p and r -= alpha q; a thread a row. Factors
// are pairs: those of x for nb rows, then those of y. Takes (rs, pap, ab_y, ab_r, nb).
struct CgAlphaKernel {
  static constexpr const char* kName = "kevra_cgalpha";
  static constexpr int kBlock = 256;

  int prec;

  std::string key() const { return "cgalpha_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
};

// The share of the last direction in the next one, beta = rs_new / rs, as factors for
// p = r + beta p; rs takes rs_new's place. Takes (rs_new, rs, ab_p, nb).
struct CgBetaKernel {
  static constexpr const char* kName = "kevra_cgbeta";
  static constexpr int kBlock = 256;

  int prec;

  std::string key() const { return "cgbeta_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
