// Products of rows with a matrix, as kernels write them: out[f][k] = sum of A[k][i] row_f[i] over
// i.
#pragma once

#include <cstdint>
#include <limits>
#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// acc: the sum over i below `length` of two elements' product, `weight` and `value` being texts
// with a `$` for what stands behind i.
void emit_weighted_sum(KernelWriter& w, const std::string& type, const std::string& length,
                       const std::string& weight, const std::string& value);

// A thread a value of the result, in blocks of kProductBlock along grid x.
inline constexpr int kProductBlock = 256;
constexpr unsigned product_blocks(int64_t rows, int64_t n_out) {
  return static_cast<unsigned>((rows * n_out + kProductBlock - 1) / kProductBlock);
}
// The most values that a launch has threads for: grid x is a 31-bit quantity.
inline constexpr int64_t kProductLimit = int64_t{std::numeric_limits<int>::max()} * kProductBlock;

// NIN and NOUT.
std::string product_defines(int n_in, int n_out);
// g, f and k: the thread's place in the result, its row and its column. Threads past `nt` rows
// leave.
void emit_product_place(KernelWriter& w);
// acc: the value there, with A in `matrix` and `value` the text of the row's element, a `$` in it
// for its place among all rows.
void emit_product_sum(KernelWriter& w, const std::string& matrix, const std::string& value);

}  // namespace kevra::codegen
