// The direct inverse of a constant-Q transform, before and behind the inverse transforms of its
// frames.
#pragma once

#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// Both go over a batch row by blocks of 256 threads; block index y is the row.

// Spectra of frames from the bins of an octave: Xf[t][j] = sum over k of C[row_lo + k][t] D[k][j]
// for j below half_d, and 0 from there up to half_f, so that the inverse transform resamples to the
// signal's rate. Takes (C, Xf, D, nf, half_f, half_d, rows, n_bins, row_lo).
struct IcqtDualKernel {
  static constexpr const char* kName = "kevra_icqtdual";

  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// y[t] += scale times the mean of the nf frames of `span` samples, one every h, that reach over
// sample t. Takes (frames, y, T, nf, span, h, scale), T being the samples of a row of y.
struct IcqtOverlapKernel {
  static constexpr const char* kName = "kevra_icqtola";

  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
