// One number of a row of magnitudes m[i] at the frequencies f[i] = fstep i: their centroid,
// bandwidth, flatness or rolloff. What the kernels that find the row in shared memory and in device
// memory have in common.
#pragma once

#include <functional>
#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// Texts of the row. The kernel has tid, the scalars fstep, pp, amin and roll of the compute type,
// and `red0` and `red1`, shared arrays of `threads` such scalars. The threads are a power of two.
struct StatisticRow {
  std::string index;  // type of i
  std::string count;
  std::string threads;
  std::string value;  // m[i]
  std::string first;  // the condition under which a thread stores the result
  std::function<void(const std::string& value)> store;
};

// The floor under the sum of magnitudes, which silence must not make a zero to divide by.
std::string least_sum(const KernelWriter& w);

// v: every magnitude of the row once, by all threads of the row.
void each_magnitude(KernelWriter& w, const StatisticRow& row, const std::function<void()>& body);

// Halves the threads until the first is left; `sums` adds the one at tid + rs to the one at tid.
void emit_halving(KernelWriter& w, const StatisticRow& row, const char* sums);

// red0[0] and red1[0]: the sums of m and of f m; of w = max(m^2, amin) and of its logarithm for the
// flatness.
void emit_statistic_sums(KernelWriter& w, int stat, const StatisticRow& row);

// Reduces and stores. No thread may have left: barriers stand outside every guard.
void emit_statistic(KernelWriter& w, int stat, const StatisticRow& row);

}  // namespace kevra::codegen
