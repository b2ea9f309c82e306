// The constant-Q transform by way of device memory: the step from one octave's signal to the next,
// the frames' zero padding, and bins from stored spectra.
#pragma once

#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// All of these go over a row by blocks of 256 threads; block index y is the row.

// Half-band decimation by two: out[j] = taps[32] x[2j] + sum over odd t of taps[t] x[2j + t - 32],
// samples outside the row being zero. Takes (x, out, taps, n, on): n samples in, on samples out.
struct HalfBandKernel {
  static constexpr const char* kName = "kevra_hbdec";
  static constexpr int kTaps = 65;

  int compute;
  int input;  // storage of x

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// Rows of n samples into rows of plen at offset pad, converted. Takes (x, out, n, plen, pad).
struct CqtPadKernel {
  static constexpr const char* kName = "kevra_cqtpad";

  int compute;
  int input;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// Bins row_lo to row_lo + rows of the first nf frames of spectra S, of which a batch row has nfl.
// Takes (S, out, br, bi, nfl, nb, rows, nf, n_bins, row_lo, eps, blo, bhi).
struct CqtReduceKernel {
  static constexpr const char* kName = "kevra_cqtred";

  int compute;
  int form;
  int storage;
  double eps;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
