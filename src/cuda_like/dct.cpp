#include "cuda_like/dct.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <numbers>
#include <string>

#include "cuda_like/tables.h"

namespace kevra {
namespace {

double lifter_weight(double lifter, int64_t k) {
  if (lifter <= 0) return 1;
  return 1 + lifter * 0.5 * std::sin(std::numbers::pi * static_cast<double>(k + 1) / lifter);
}

}  // namespace

std::vector<double> build_cosines(const CosineMatrix& matrix) {
  const int64_t n = matrix.n_mels;
  // One quarter of a turn is n steps. A cosine of few turns is exact where one of many is not.
  std::vector<double> cosines(static_cast<size_t>(4 * n));
  for (int64_t i = 0; i < 4 * n; ++i) {
    cosines[i] = std::cos(std::numbers::pi * 0.5 * static_cast<double>(i) / static_cast<double>(n));
  }
  std::vector<double> values;
  values.reserve(static_cast<size_t>(matrix.n_out * n));
  for (int64_t k = 0; k < matrix.n_out; ++k) {
    const double scale = 2 * std::sqrt((k == 0 ? 0.25 : 0.5) / static_cast<double>(n)) *
                         lifter_weight(matrix.lifter, k);
    for (int64_t m = 0; m < n; ++m) {
      values.push_back(scale * cosines[(2 * m + 1) * k % (4 * n)]);
    }
  }
  return values;
}

devptr_t cosine_table(const CosineMatrix& matrix, bool wide) {
  char name[80];
  std::snprintf(name, sizeof name, "dct_%lld_%lld_%016llx_%d", static_cast<long long>(matrix.n_out),
                static_cast<long long>(matrix.n_mels),
                static_cast<unsigned long long>(std::bit_cast<uint64_t>(matrix.lifter)),
                wide ? 8 : 4);
  if (wide) return device_vector_table<double>(name, [&] { return build_cosines(matrix); });
  return device_vector_table<float>(name, [&] {
    const std::vector<double> values = build_cosines(matrix);
    return std::vector<float>(values.begin(), values.end());
  });
}

}  // namespace kevra
