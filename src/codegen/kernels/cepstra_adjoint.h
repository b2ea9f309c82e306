// The gradient of cepstra with respect to the decibels of bands in device memory: the transposed
// product, and what a floor below the loudest band does to it.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/matrix_product.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// peak[row] and idx[row]: the largest of a row's n values and the first place that holds it; a
// block a row. Takes (M, peak, idx, n). NaN loses, and a row without a value above the least that
// the kernel knows has its first place.
struct CepstraFirstPeak {
  static constexpr const char* kName = "kevra_cepmaxi";
  static constexpr int kBlock = 256;  // the halving maximum wants a power of two

  int prec;  // float or double

  std::string key() const { return "cepmaxi_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
  // A maximum and its place a thread.
  size_t shared_bytes() const { return kBlock * ((prec == kDouble ? 8 : 4) + 8); }
};

// gM[f][m] = sum over k of D[k][m] gc[b][k][t], frame f being frame t of batch row b. Takes
// (gM, gc, D, nt, nf): nt frames in all, nf to a batch row.
struct CepstraGradient {
  static constexpr const char* kName = "kevra_cepadj";
  static constexpr int kBlock = kProductBlock;

  int prec;  // float or double
  int n_mels;
  int n_out;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// Bands below their row's peak less topdb were raised to that level and follow the peak: what gM
// holds for them goes to the peak's place, and they receive 0. A block a row. Takes (M, gM, peak,
// idx, n, topdb).
struct CepstraFloorSum {
  static constexpr const char* kName = "kevra_cepcsum";
  static constexpr int kBlock = 256;  // the halving sum wants a power of two

  int prec;  // float or double

  std::string key() const { return "cepcsum_" + std::to_string(prec); }
  std::string source(const Backend& backend) const;
  // One partial sum a thread.
  size_t shared_bytes() const { return kBlock * (prec == kDouble ? 8 : 4); }
};

}  // namespace kevra::codegen
