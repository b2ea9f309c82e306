// Between the n / 2 + 1 bins X[k] of a real row, n even, and the m = n / 2 bins Z[k] of its pairs
// of samples taken as complex values. With E and O the transforms of the even and of the odd
// samples, X[k] = E[k] + exp(-2 pi i k / n) O[k], X[m - k] is the conjugate of E[k] - exp(-2 pi i k
// / n) O[k], and Z[k] = E[k] + i O[k].
#pragma once

#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// er, ei, or_, oi: half the sum and half the difference of `zk` and of the conjugate of `zn`, which
// are values at k and at m - k.
void emit_even_odd(KernelWriter& w, const std::string& zk, const std::string& zn);
// tr, ti: that difference times exp(-2 pi i k / n), or its conjugate. k is a name of the kernel.
void emit_turned(KernelWriter& w, int n, bool conjugate);

// Declares `name` with the bin that `source` holds in `storage`.
void load_bin(KernelWriter& w, int storage, const std::string& name, const std::string& source);
// The way to Z[k], which is (er - ti, ei + tr): loads X[k] from `bin` and X[m - k] from `mirror`,
// of which the imaginary parts of the first and the last bin are ignored.
void emit_packed_bin(KernelWriter& w, int n, int storage, const std::string& bin,
                     const std::string& mirror);

}  // namespace kevra::codegen
