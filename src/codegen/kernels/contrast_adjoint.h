// Gradient of the spectral contrast: the peak's share goes to the q largest magnitudes of a band,
// the valley's, negative, to its q smallest.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/band_select.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// Grid (rows, bands); a block stores every element of its band, the outer bands' blocks also the
// zeros of the bins that no band has. Both kernels take (M, gy, gM, bt, bq, n, nbands, amin,
// linear). The first sorts the band with its places in shared memory; the second finds the q-th
// elements as the forward's histograms do, where those of the q-th element's level share its part.
struct ContrastAdjointKernel {
  static constexpr const char* kSort = "kevra_contrast_adj";
  static constexpr const char* kHistogram = "kevra_contrastg_adj";
  static constexpr int kBlock = kHistogramBlock;

  int prec;  // float or double
  bool histogram;

  // The sort where `limit` bytes hold band_pad values and their places.
  static ContrastAdjointKernel chosen(int prec, int64_t band_pad, int64_t limit);
  int64_t shared_bytes(int64_t band_pad) const {
    if (histogram) return kHistogramBytes;
    return band_pad * ((prec == kDouble ? 8 : 4) + 4);
  }

  const char* name() const { return histogram ? kHistogram : kSort; }
  std::string key() const {
    return (histogram ? "contrastg_adj_" : "contrast_adj_") + std::to_string(prec);
  }
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
