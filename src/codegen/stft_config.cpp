#include "codegen/stft_config.h"

#include <algorithm>
#include <bit>
#include <tuple>
#include <vector>

#include "codegen/sizes.h"

namespace kevra::codegen {
namespace {

constexpr int kBlockLimit = 1024;
constexpr int64_t kCapWhenUntold = 98304;

// Where the long-frame core starts in float without being asked.
constexpr int kEpt16Default = 2048;
constexpr int kEpt16Least = 512;
// Below this many points a 32-thread frame exchanges by shuffles faster than through memory.
constexpr int kWarpLimit = 544;

// A pass unrolls as many elements; more registers than this no thread has.
constexpr int kEptLimit = 64;
// The shuffles' group: a frame of fewer points leaves lanes without a value.
constexpr int kWarp = 32;

constexpr int kDefaultShift = 4;

// A hint's bits in `var`.
constexpr int kVarPadded = 4;

StftConfig from_request(const StftRequest& r) {
  StftConfig s;
  s.prec = s.in_prec = s.out_prec = r.prec;
  s.n_fft = r.n_fft;
  s.hop = r.hop;
  s.pad = r.pad;
  s.length = r.length;
  s.frames = r.frames;
  s.form = r.form;
  s.eps = r.eps;
  s.stat = r.statistic.stat;
  s.n_bands = r.statistic.n_bands;
  s.band_pad = r.statistic.band_pad;
  return s;
}

// The most frames a block holds, from `wanted` down to 1: `row` elements each beside
// `shared_by_all` elements in `cap` bytes, and `tpf` threads each.
int frames_that_fit(int wanted, int64_t row, int64_t shared_by_all, int64_t elem, int64_t cap,
                    int tpf) {
  int fpb = std::max(std::min(wanted, kBlockLimit / tpf), 1);
  while (fpb > 1 && (row * fpb + shared_by_all) * elem > cap) --fpb;
  return fpb;
}

// The last word on shared memory, with the padding that was wished: fewer frames, then the padding
// of the default, then the way through device memory, which takes every length.
void keep_within(StftConfig& s, int64_t cap) {
  if (s.core == StftCore::kFourStep) return;
  const auto fits = [&] { return static_cast<int64_t>(total_shared_bytes(s)) <= cap; };
  while (s.fpb > 1 && !fits()) --s.fpb;
  if (!fits()) {
    s.shp_shift = kDefaultShift;
    s.padded = false;
  }
  if (!fits() || s.tpf > kBlockLimit) s.core = StftCore::kFourStep;
}

}  // namespace

const char* core_name(StftCore core) {
  switch (core) {
    case StftCore::kCooleyTukey:
      return "cooley_tukey";
    case StftCore::kWarp:
      return "warp";
    case StftCore::kMixed:
      return "mixed";
    case StftCore::kEpt16:
      return "ept16";
    case StftCore::kFourStep:
      return "four_step";
  }
  return "?";
}

StftConfig build_pow2_schedule(const StftRequest& request, const ShapeHint& hint, int64_t given) {
  StftConfig s = from_request(request);
  const int64_t cap = given > 0 ? given : kCapWhenUntold;
  const int64_t elem = static_cast<int64_t>(complex_bytes(s.prec));
  const int half = s.n_fft / 2;
  const int padding = half >> 4;

  s.ept = hint.ept > 0 ? hint.ept : 8;
  while (s.ept > std::min(half, kEptLimit) && s.ept > 1) s.ept /= 2;
  s.tpf = hint.tpf > 0 ? std::min(hint.tpf, kBlockLimit) : std::max(1, half / s.ept);
  // A statistic's sums are halved from thread to thread.
  if (s.stat != kNoStatistic) {
    s.tpf = static_cast<int>(std::bit_floor(static_cast<unsigned>(s.tpf)));
  }
  s.wide = s.prec == 2;
  s.fpb = hint.fpb >= 1 ? hint.fpb : std::min(8, std::max(1, (s.n_fft <= 512 ? 256 : 128) / s.tpf));
  s.tw_global = s.wide && (2 * half + 1 + padding + half / 2) * elem > cap;
  const int table = s.wide && !s.tw_global ? half + half / 2 : 0;
  const int row = half + 1 + padding;
  s.fpb = frames_that_fit(s.fpb, row, table, elem, cap, s.tpf);

  if (s.tpf == kWarp && half >= kWarp && half < kWarpLimit && s.prec != 2) {
    s.core = StftCore::kWarp;
  }
  if (hint.core == 1) s.core = StftCore::kCooleyTukey;

  // This core reads its roots from device memory: it wants all of them, not a half.
  const bool ept16_fits = row * elem <= cap;
  const bool wanted = hint.core == 3 && s.n_fft >= kEpt16Least && ept16_fits;
  const bool by_default = hint.core <= 0 && s.prec == 1 && s.n_fft >= kEpt16Default;
  if (wanted || by_default) {
    s.core = StftCore::kEpt16;
    s.ept = wanted ? factorize(half).front() : 16;
    s.tpf = half / s.ept;
    s.tw_global = s.wide;
    s.fpb = frames_that_fit(4, row, 0, elem, cap, s.tpf);
    if (ept16_fits) return s;
  }

  if (const auto [n1, n2] = four_step_split(half, s.prec, cap); n1 != 0) {
    s.n1 = n1;
    s.n2 = n2;
    s.core = StftCore::kFourStep;
  }
  return s;
}

StftConfig build_mixed_schedule(const StftRequest& request, const ShapeHint& hint, int64_t cap) {
  StftConfig s = from_request(request);
  s.pair = s.n_fft % 2 != 0;
  s.core = StftCore::kMixed;
  const int m = s.pair ? s.n_fft : s.n_fft / 2;
  const std::vector<int> radices = factorize(m);
  const int least = radices.empty() ? 2 : *std::min_element(radices.begin(), radices.end());

  // Few radices below 7 mean whole waves; a large least radix leaves few butterflies a stage.
  constexpr int kTpfLimit = 256;
  constexpr int kWave = 32;
  if (least > 6) {
    s.tpf = std::min(kTpfLimit, std::max(1, m));
  } else {
    const int butterflies = std::max(1, m / least);
    s.tpf = std::min(kTpfLimit, std::max(kWave, (butterflies + kWave - 1) / kWave * kWave));
  }
  if (hint.tpf > 0) s.tpf = std::min(hint.tpf, kBlockLimit);

  if (cap > 0 && !fits_shared(m, s.prec, cap)) {
    s.core = StftCore::kFourStep;
    if (!s.pair) std::tie(s.n1, s.n2) = four_step_split(m, s.prec, cap);
  }
  return s;
}

StftConfig route_stft(const StftRequest& request, const ShapeHint& hint, int64_t cap) {
  const int n = request.n_fft;
  StftConfig s = is_power_of_two(n) ? build_pow2_schedule(request, hint, cap)
                                    : build_mixed_schedule(request, hint, cap);
  constexpr int kShiftNone = 15;  // 0 stands for the default
  const int var = std::max(hint.var, 0);
  const int shift = (var >> 4) & 15;
  s.shp_shift = shift == 0 ? kDefaultShift : shift == kShiftNone ? 0 : shift;
  const int m = s.pair ? n : n / 2;
  s.padded = (var & kVarPadded) != 0 && rader_extra(m) == 0;
  if (s.core == StftCore::kMixed && needs_bluestein(m)) s.core = StftCore::kFourStep;
  keep_within(s, cap > 0 ? cap : kCapWhenUntold);
  return s;
}

size_t padded_bins(const StftConfig& s) {
  const size_t half = s.n_fft / 2;
  return half + 1 + (s.shp_shift != 0 ? half >> s.shp_shift : 0);
}

size_t frame_shared_bytes(const StftConfig& s) {
  const size_t half = s.n_fft / 2;
  const size_t table = half + half / 2;
  const size_t elem = complex_bytes(s.prec);
  if (s.core != StftCore::kMixed) {
    return (padded_bins(s) * s.fpb + (s.wide && !s.tw_global ? table : 0)) * elem;
  }
  const int m = s.pair ? s.n_fft : s.n_fft / 2;
  const size_t row = s.padded ? m + m / 16 + 1 : m;
  return (rader_extra(m) + row + (s.wide ? table : 0)) * elem;
}

int statistic_row(const StftConfig& s) {
  const int scratch = s.stat == kContrast ? s.band_pad : 2 * s.tpf;
  return s.stat == kNoStatistic ? 0 : s.n_fft / 2 + 1 + scratch;
}

size_t total_shared_bytes(const StftConfig& s) {
  const size_t scalars = static_cast<size_t>(s.fpb) * static_cast<size_t>(statistic_row(s));
  return frame_shared_bytes(s) + scalars * complex_bytes(s.prec) / 2;
}

}  // namespace kevra::codegen
