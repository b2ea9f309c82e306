// Cepstra of bands in device memory: products of a matrix with the decibels of each frame, which
// may first be raised to a floor below their signal's largest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/matrix_product.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// peak[row]: the largest of a row's n values; a block a row. Takes (M, peak, n).
struct CepstraPeakKernel {
  static constexpr const char* kName = "kevra_cepmax";
  static constexpr int kBlock = 256;  // the halving maximum wants a power of two

  int prec;  // float or double

  std::string key() const { return "cepmax_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
  // One maximum a thread.
  size_t shared_bytes() const { return kBlock * (prec == kDouble ? 8 : 4); }
};

// out[f][k] = sum over m of D[k][m] M[f][m], over nt frames, nf to a signal; with `floored`, M is
// at least its signal's peak less topdb. Takes (M, D, out, peak, nt, nf, topdb); without `floored`
// the peaks are not read.
struct CepstraKernel {
  static constexpr const char* kName = "kevra_cepstra";
  static constexpr int kBlock = kProductBlock;

  int prec;  // float or double
  int n_mels;
  int n_out;
  bool floored;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
