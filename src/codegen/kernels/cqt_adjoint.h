// The gradient of a constant-Q transform: from bins to spectra, and from one octave's signal to the
// one above. A complex value X has the gradient dE/dRe X + i dE/dIm X.
#pragma once

#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// All of these go over a row by blocks of 256 threads; block index y is the row.

// gc[k][t] = dE/dC of the complex bins of one record, from the gradient g of their form, of which a
// batch row has n_bins; the record's begin at row_lo. The bins are computed anew from the spectra
// S; the complex form copies. Takes (S, gc, g, br, bi, nfl, nb, rows, nf, n_bins, row_lo, eps, blo,
// bhi).
struct CqtBinGradientKernel {
  static constexpr const char* kName = "kevra_cqtgc";

  int compute;
  int form;
  double eps;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// gS[t][i] = the sum over the rows k of conj(br[k][i] + i bi[k][i]) gc[k][t], for nf of the nfl
// frames. Takes (gc, gS, br, bi, nfl, nb, rows, nf, klo, khi).
struct CqtSpectrumGradientKernel {
  static constexpr const char* kName = "kevra_cqtradj";

  int compute;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// The transpose of HalfBandKernel: gin[i] = the sum over j of gout[j] times the tap by which x[i]
// counts in out[j]. Takes (gout, gin, taps, n, on), n being the samples of gin.
struct HalfBandAdjointKernel {
  static constexpr const char* kName = "kevra_hbadj";

  int compute;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// glev[j] += gx[pad + j] for rows of n and of plen. Takes (gx, glev, plen, pad, n).
struct CqtAddLevelKernel {
  static constexpr const char* kName = "kevra_cqtaddsl";

  int compute;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
