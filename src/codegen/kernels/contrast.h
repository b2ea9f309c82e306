// Spectral contrast: how far the loudest magnitudes of a band stand above its quietest. Of band b,
// bins bt[b] .. bt[b + 1] - 1, the mean of the bq[b] largest less the mean of the bq[b] smallest,
// as they are or in decibels of both, neither below amin.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/band_select.h"
#include "codegen/precision.h"

namespace kevra::codegen {

// The texts of a frame or row whose bands its threads sort in `vals`, a shared array of scalars of
// the compute type. The kernel has tid, band, bt, bq and amin.
struct BandRow {
  std::string threads;
  std::string value;   // of the band's element i, bin lo + i
  std::string linear;  // the condition for no decibels
  std::string first;   // the condition under which a thread stores the result
  std::string destination;
  int storage;
};
// Sorts the band ascending (a bitonic network, padded above to a power of two), and stores its
// contrast. No thread may have left; the next band wants a barrier before it.
void emit_sorted_contrast(KernelWriter& w, const BandRow& row);

// Bands of rows of n magnitudes in device memory, grid (rows, bands). Both kernels take (M, out,
// bt, bq, n, nbands, amin, linear). The first sorts the band in shared memory; the second finds the
// bq-th element by two histograms of 256 levels, in which elements less than 1 / 65536 of the
// band's range apart may count as equal, and needs little memory for bands of any width.
struct ContrastKernel {
  static constexpr const char* kSort = "kevra_contrast";
  static constexpr const char* kHistogram = "kevra_contrastg";
  static constexpr int kBlock = kHistogramBlock;

  int prec;
  bool histogram;

  // The sort where `limit` bytes hold band_pad values of the arithmetic.
  static ContrastKernel chosen(int prec, int64_t band_pad, int64_t limit);
  int64_t shared_bytes(int64_t band_pad) const {
    if (histogram) return kHistogramBytes;
    return band_pad * (compute_precision(prec) == kDouble ? 8 : 4);
  }

  const char* name() const { return histogram ? kHistogram : kSort; }
  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
