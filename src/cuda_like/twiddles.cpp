#include "cuda_like/twiddles.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <numbers>
#include <string>

#include "codegen/precision.h"
#include "codegen/rader.h"
#include "codegen/sizes.h"
#include "cuda_like/hash.h"
#include "cuda_like/tables.h"

namespace kevra {
namespace {

using Table = std::vector<std::complex<double>>;

// The first `count` powers of exp(-2 pi i / n). In double the roundings of the angle alone would
// put a root off by up to seven units of the last place, more than all stages of a transform add.
void append_roots(Table& table, int n, int count) {
  for (int k = 0; k < count; ++k) {
    const long double angle = k * (-2 * std::numbers::pi_v<long double>)*(1.0L / n);
    table.emplace_back(static_cast<double>(std::cos(angle)), static_cast<double>(std::sin(angle)));
  }
}

// What tells the tables of the transforms apart: the seed of the key, and a letter.
struct TwiddleTag {
  uint64_t seed;
  char letter;
};
constexpr TwiddleTag kFftTag{35, 'f'};
constexpr TwiddleTag kFrameTag{33, 's'};

devptr_t upload_twiddles(const TwiddleTag& tag, int n, const Table& table, size_t scalar_bytes) {
  char name[64];
  std::snprintf(name, sizeof name, "tw%c_%d_%zu_%zu", tag.letter, n, table.size(), scalar_bytes);
  if (scalar_bytes == sizeof(double)) {
    return device_table(name, table.data(), table.size() * sizeof table[0]);
  }
  const std::vector<std::complex<float>> narrow(table.begin(), table.end());
  return device_table(name, narrow.data(), narrow.size() * sizeof narrow[0]);
}

uint64_t table_key(const TwiddleTag& tag, int n, size_t scalar_bytes, int variant) {
  return key_of(
      {tag.seed, uint64_t(n), uint64_t(scalar_bytes), uint64_t(tag.letter), uint64_t(variant)});
}

Table frame_table(const codegen::StftConfig& config) {
  const int n = config.n_fft;
  if (config.prec != codegen::kDouble) return Table(1);
  if (config.core == codegen::StftCore::kMixed) {
    return config.pair ? twiddle_table(2 * n, codegen::rader_prime(n))
                       : twiddle_table(n, codegen::rader_prime(n / 2));
  }
  return config.core == codegen::StftCore::kEpt16 ? twiddle_table(n, 0) : twiddle_table_pow2(n);
}

}  // namespace

Table twiddle_table(int n, int rader) {
  Table table;
  append_roots(table, n, n);
  if (rader == 0) return table;
  const int m = rader - 1;
  append_roots(table, m, m);
  const int g = codegen::primitive_root(rader);
  const codegen::RaderMaps maps = codegen::rader_maps(rader, g);
  std::vector<double> re, im;
  codegen::rader_filter(rader, g, re, im);
  for (int k = 0; k < m; ++k) table.emplace_back(re[k], im[k]);
  for (int k = 0; k < m; ++k) table.emplace_back(maps.log[k + 1], maps.out[k]);
  return table;
}

Table twiddle_table_pow2(int n) {
  Table table;
  append_roots(table, n / 2, n / 4);
  append_roots(table, n, n / 2);
  return table;
}

devptr_t fft_twiddles(int n, int rader, bool wide) {
  const size_t scalar_bytes = wide ? sizeof(double) : sizeof(float);
  return device_table_built(table_key(kFftTag, n, scalar_bytes, rader), [&] {
    return upload_twiddles(kFftTag, n, wide ? twiddle_table(n, rader) : Table(1), scalar_bytes);
  });
}

devptr_t frame_twiddles(const codegen::StftConfig& config) {
  const size_t scalar_bytes = config.prec == codegen::kDouble ? sizeof(double) : sizeof(float);
  // A power-of-two length has a table for each of the two ways to read it.
  const int variant = config.core == codegen::StftCore::kEpt16 ? 1 : 0;
  return device_table_built(table_key(kFrameTag, config.n_fft, scalar_bytes, variant), [&] {
    return upload_twiddles(kFrameTag, config.n_fft, frame_table(config), scalar_bytes);
  });
}

}  // namespace kevra
