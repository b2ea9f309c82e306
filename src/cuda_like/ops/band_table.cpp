#include "cuda_like/ops/band_table.h"

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <string>
#include <vector>

#include "cuda_like/hash.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/tables.h"

namespace kevra::ops {
namespace {

std::string entry(const char* array, int64_t index, int32_t value) {
  return std::string(array) + "[" + std::to_string(index) + "] is " + std::to_string(value);
}

}  // namespace

void check_band_edges(const BandTable& bands) {
  if (bands.edges != bands.n_bands + 1) {
    throw std::invalid_argument("contrast: band table must hold n_bands + 1 edges");
  }
}

void check_bands(const BandTable& t, int64_t n) {
  require_at_most("contrast", "n_bands", t.n_bands, kRowsOfALaunch);  // grid y
  const int32_t last = t.bt[t.n_bands];
  if (t.bt[0] < 0 || last > n) {
    throw std::invalid_argument(
        "contrast: " + (last > n ? entry("bt", t.n_bands, last) : entry("bt", 0, t.bt[0])) +
        ", must be from 0 to the " + std::to_string(n) + " bins of the spectrum");
  }
  for (int64_t b = 0; b < t.n_bands; ++b) {
    const int64_t width = int64_t{t.bt[b + 1]} - t.bt[b];
    if (width < 1) {
      throw std::invalid_argument("contrast: " + entry("bt", b + 1, t.bt[b + 1]) +
                                  ", must be above bt[" + std::to_string(b) + "], " +
                                  std::to_string(t.bt[b]));
    }
    if (t.bq[b] < 1 || t.bq[b] > width) {
      throw std::invalid_argument("contrast: " + entry("bq", b, t.bq[b]) +
                                  ", must be from 1 to the band's width, " + std::to_string(width));
    }
  }
}

int64_t band_pad(const BandTable& t) {
  uint64_t pad = 2;
  for (int64_t b = 0; b < t.n_bands; ++b) {
    pad = std::max(pad, std::bit_ceil(static_cast<uint64_t>(t.bt[b + 1] - t.bt[b])));
  }
  return static_cast<int64_t>(pad);
}

devptr_t upload_bands(const BandTable& t) {
  constexpr uint64_t kSeed = 99;
  const auto bytes = [](int64_t count) { return static_cast<size_t>(count) * sizeof(int32_t); };
  const uint64_t key = key_of({kSeed, content_hash(t.bt, bytes(t.edges)),
                               content_hash(t.bq, bytes(t.n_bands)), uint64_t(t.n_bands)});
  return device_table_built(key, [&] {
    std::vector<int32_t> values(t.bt, t.bt + t.edges);
    values.insert(values.end(), t.bq, t.bq + t.n_bands);
    return content_table(values.data(), values.size(), sizeof(int32_t));
  });
}

}  // namespace kevra::ops
