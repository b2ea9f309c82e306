// What the kernels around a linear filter's scan share: arithmetic in pairs of doubles, and the
// powers of the filter's companion matrix.
//
// The state of y[n] = sum of b[m] x[n - m] - sum of a[j] y[n - 1 - j] is (y[n - 1], ..., y[n - p]);
// one step without input multiplies it by the companion matrix A. Squaring A loses more digits than
// a double has (A^16 of an eighth-order low-pass holds entries of 10^6 that cancel), so its powers
// are taken in pairs.
#pragma once

#include <string>

#include "codegen/backend.h"
#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// add_product(h, l, ah, al, bh, bl): h + l += (ah + al)(bh + bl).
std::string pair_arithmetic(const Backend& backend);

// Names two matrices of pairs, `high`, `low` and `high2`, `low2`, at the start of the shared array
// of doubles `pairs`: 4 PP^2 values.
void name_pair_matrices(KernelWriter& w);

// A^SEQ of the coefficients `a` into high + low. `each_step` stands where a thread has A^s of its
// column `c` for each s below SEQ.
void first_power(KernelWriter& w, int block, const std::string& each_step);

// Writes `high` and its repeated squares, LEVELS matrices, from out[first] on as values of type
// `out_type`; by columns or by rows.
void write_squares(KernelWriter& w, int block, const std::string& first,
                   const std::string& out_type, bool by_columns);

}  // namespace kevra::codegen
