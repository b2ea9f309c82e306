// The way from the bins of a real row to half as many complex values: with n samples, n even, and
// h = n / 2, Z[k] = E[k] + i O[k] is the spectrum of x[2m] + i x[2m + 1], where E and O are those
// of the even and of the odd samples and X[k] = E[k] + exp(-2 pi i k / n) O[k].
#pragma once

#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// Declares `name` with the complex value that `source` holds in `storage`.
void load_bin(KernelWriter& w, int storage, const std::string& name, const std::string& source);

struct FoldedBin {
  std::string re, im;
};
// Z[k] of `xk` = X[k] and `xn` = X[h - k]. `k` and the two are names; er, ei, or_, oi, tr, ti get
// declared.
FoldedBin fold_bins(KernelWriter& w, int n, const std::string& k);

}  // namespace kevra::codegen
