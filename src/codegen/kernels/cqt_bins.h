// A constant-Q bin of a frame: the product of a row of the basis with the frame's spectrum, and the
// form that is stored of it.
#pragma once

#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// re, im: the sum over the columns i from blo[k] to bhi[k] of (br[k][i] + i bi[k][i]) spectrum[i],
// k being a name of the kernel and `bins` the columns of a row.
void emit_bin_product(KernelWriter& w, const std::string& spectrum, const std::string& bins);

// Stores re and im at out[idx], as they are or as the real number of `form`.
void emit_bin_store(KernelWriter& w, int form, int storage);

}  // namespace kevra::codegen
