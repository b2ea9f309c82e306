#include "cuda_like/ops/fft_route.h"

#include <algorithm>

#include "codegen/sizes.h"

namespace kevra::ops {
namespace {

using codegen::ComplexFftKernel;
using codegen::is_power_of_two;
using codegen::ShapeHint;

bool one_of(int n, std::initializer_list<int> sizes) {
  return std::find(sizes.begin(), sizes.end(), n) != sizes.end();
}

// Squares p p and cubes p p p of small radices: the whole transform in two or three butterflies.
std::optional<FftRoute> power_route(const FftShape& s, const ShapeHint& h, int64_t limit) {
  struct Power {
    int n, p, rows_float, rows_double;  // rows 0: not in this twin
    FftForm form;
  };
  static constexpr Power kPowers[] = {
      {64, 8, 4, 4, FftForm::kTwoPass},    {256, 16, 4, 4, FftForm::kTwoPass},
      {121, 11, 4, 8, FftForm::kTwoPass},  {169, 13, 0, 12, FftForm::kTwoPass},
      {343, 7, 0, 6, FftForm::kThreePass}, {1331, 11, 0, 2, FftForm::kThreePass}};
  for (const Power& power : kPowers) {
    const int rows = s.wide ? power.rows_double : power.rows_float;
    if (power.n != s.n || rows == 0) continue;
    const bool square = power.form == FftForm::kTwoPass;
    const int threads = s.n / power.p;
    const int64_t row_bytes = (square ? s.n + power.p : s.n) * s.complex_bytes();
    int f = h.fpb > 0 ? h.fpb : rows;
    // A wish for more rows than a block has threads is lowered; for a cube that exceeds shared
    // memory it falls through to the other kernels.
    f = std::min(f, kBlockLimit / threads);
    if (square) f = static_cast<int>(std::min<int64_t>(f, limit / row_bytes));
    if (f < 1 || f * row_bytes > limit) return std::nullopt;
    RegisterFft reg{.ept = power.p,
                    .radices = std::vector<int>(square ? 2 : 3, power.p),
                    .rows = f,
                    .shared_bytes = static_cast<size_t>(f * row_bytes)};
    return FftRoute{power.form, std::move(reg), {}};
  }
  return std::nullopt;
}

std::optional<FftRoute> pair_route(const FftShape& s, const ShapeHint& h) {
  if (h.core > 0 || !s.half || !s.pair || s.inverse || !one_of(s.n, {512, 1024, 2048, 4096})) {
    return std::nullopt;
  }
  const int ept = s.n == 4096 ? 32 : 16;
  const int threads = s.n / ept;
  RegisterFft reg{.ept = ept,
                  .radices = peel_radices(s.n, ept, 16),
                  .rows = 2,
                  .window_layout = true,
                  .shared_bytes = static_cast<size_t>(threads) * (ept + 1) * 4 + 128};
  return FftRoute{FftForm::kPair, std::move(reg), {}};
}

// The radices of a wished register kernel: powers of two, by default or by hint. Empty: no wish.
std::vector<int> wished_radices(const FftShape& s, const ShapeHint& h, bool window_layout) {
  int ept = 16;
  bool wish = false;
  if (s.wide) {
    wish = one_of(s.n, {2048, 4096, 8192});
    if (wish) ept = 8;
  } else {
    wish = one_of(s.n, {512, 4096, 8192}) || (s.half && one_of(s.n, {1024, 2048}));
    if (s.n == 8192) ept = 32;
  }
  if (h.core == 1) return {};
  if (h.core == 2 && is_power_of_two(s.n)) wish = true;
  if (!wish) return {};

  if (h.ept > 0) ept = h.ept;
  ept = std::min(ept, s.n);
  while (s.n % ept != 0) --ept;
  // One value a thread would peel for ever, and a wish for too many is not worth compiling.
  if (ept < 2 || ept > kLargestEpt) return {};
  return peel_radices(s.n, ept, window_layout && ept >= 17 ? 16 : ept);
}

// The radices of a size that is no power of two, listed or asked for. Empty: none.
std::vector<int> uniform_radices(const FftShape& s, const ShapeHint& h) {
  const bool listed = one_of(s.n, {96, 384, 625, 1000});
  if (h.core == 1 || (!listed && (is_power_of_two(s.n) || h.core != 2))) return {};
  int lo = s.wide ? 5 : 8;
  int hi = s.wide ? 12 : 25;
  if (h.ept > 0) {
    lo = hi = std::min(h.ept, kLargestEpt);
  } else if (s.wide && s.n == 384) {
    lo = hi = 6;
  } else if (!s.wide && one_of(s.n, {96, 625, 1000})) {
    lo = hi = s.n == 96 ? 12 : s.n == 625 ? 5 : 10;
  }
  return codegen::find_uniform_schedule(s.n, lo, hi);
}

bool window_layout(const FftShape& s, const ShapeHint& h, bool uniform) {
  bool base = uniform || (s.half && one_of(s.n, {1024, 2048}));
  if (s.wide) {
    base = base || s.n >= 512;
  } else {
    base = base || one_of(s.n, {512, 4096, 8192});
  }
  return base != ((std::max(h.var, 0) & kVarFlipLayout) != 0);
}

std::optional<FftRoute> register_route(const FftShape& s, const ShapeHint& h, int64_t limit) {
  bool uniform = false;
  bool windows = window_layout(s, h, uniform);
  std::vector<int> radices = wished_radices(s, h, windows);
  if (radices.empty()) {
    radices = uniform_radices(s, h);
    if (radices.empty()) return std::nullopt;
    uniform = true;
    windows = window_layout(s, h, uniform);
  }
  const int ept = radices.front();
  const int threads = s.n / ept;
  // Packed data without a pair kernel (the inverse, say) runs as half storage.
  const bool half_exchange = (std::max(h.var, 0) & kVarHalfExchange) != 0 && windows && s.half;

  int rows = s.n == 8192 || (s.n == 512 && !s.half) ? 2 : 1;
  if (windows) rows = s.wide && s.n <= 1024 ? 2 : 1;
  if (uniform) rows = std::max(64 / threads, 1);
  if (h.fpb > 0) rows = h.fpb;
  rows = std::min(rows, kBlockLimit / threads);
  if (rows < 1) return std::nullopt;

  const int64_t words =
      windows ? static_cast<int64_t>(threads) * (ept + 1) + 32 : s.n + s.n / 16 + 1;
  const int64_t value = s.complex_bytes();
  const int64_t bytes = words * rows * (!windows ? value : half_exchange ? 2 : value / 2);
  if (bytes > limit) return std::nullopt;
  return FftRoute{FftForm::kRegister,
                  {.ept = ept,
                   .radices = std::move(radices),
                   .rows = rows,
                   .window_layout = windows,
                   .half_exchange = half_exchange,
                   .shared_bytes = static_cast<size_t>(bytes)},
                  {}};
}

ComplexFftKernel shared_kernel(const FftShape& s, const ShapeHint& h, int64_t limit) {
  const int extra = codegen::rader_extra(s.n);
  int tpf = std::min(std::max(s.n / 8, 16), 256);
  int rows = 1;
  if (is_power_of_two(s.n)) {
    rows = std::max(64 / tpf, 1);
  } else if (tpf < 96) {
    const int64_t by_memory = limit * 3 / 4 / ((s.n + extra) * s.complex_bytes());
    rows = static_cast<int>(std::clamp<int64_t>(by_memory, 1, std::min(128 / tpf, 8)));
  }
  if (s.wide && s.n == 720) tpf = 45, rows = 2;
  if (s.wide && s.n == 3125) tpf = 128;
  if (h.tpf > 0) tpf = std::min(h.tpf, kBlockLimit);
  if (h.fpb > 0) rows = std::min(h.fpb, kBlockLimit);

  const int var = std::max(h.var, 0);
  ComplexFftKernel kernel{.n = s.n,
                          .compute = s.wide ? 2 : 1,
                          .storage = s.storage(),
                          .inverse = s.inverse,
                          .tpf = tpf,
                          .rows_per_block = rows,
                          .padded = (var & kVarPadded) != 0 && extra == 0,
                          .radix25 = (var & kVarRadix25) != 0 && s.n % 25 == 0};
  const auto too_large = [&] { return static_cast<int64_t>(kernel.shared_bytes()) > limit; };
  while (kernel.rows_per_block > 1 && (too_large() || kernel.block() > kBlockLimit)) {
    --kernel.rows_per_block;
  }
  if (too_large()) kernel.padded = false;  // a wish for padding must not cost a size that fits
  return kernel;
}

}  // namespace

std::vector<int> peel_radices(int n, int first, int most) {
  std::vector<int> radices{first};
  for (int left = n / first; left > 1;) {
    int r = std::min(left, most);
    while (left % r != 0) --r;
    radices.push_back(r);
    left /= r;
  }
  return radices;
}

const char* fft_form_name(FftForm form) {
  switch (form) {
    case FftForm::kBluestein:
      return "Bluestein";
    case FftForm::kFourStep:
      return "four-step";
    case FftForm::kTwoPass:
      return "two-pass register";
    case FftForm::kThreePass:
      return "three-pass register";
    case FftForm::kPair:
      return "packed-pair register";
    case FftForm::kRegister:
      return "register";
    case FftForm::kShared:
      return "shared-memory";
  }
  return "?";
}

codegen::RegisterFftKernel register_kernel(const FftShape& s, const FftRoute& route) {
  using codegen::RegisterFftKernel;
  const RegisterFft& reg = route.registers;
  const auto form = route.form == FftForm::kTwoPass     ? RegisterFftKernel::kTwoPass
                    : route.form == FftForm::kThreePass ? RegisterFftKernel::kThreePass
                    : route.form == FftForm::kPair      ? RegisterFftKernel::kPair
                                                        : RegisterFftKernel::kMixed;
  return {.form = form,
          .data = {s.n, s.wide ? 2 : 1, s.storage(), s.inverse},
          .radices = reg.radices,
          .rows = reg.rows,
          .windows = reg.window_layout,
          .half_exchange = reg.half_exchange};
}

std::optional<FftForm> fft_form_by_size(const FftShape& s, int64_t limit) {
  if (codegen::needs_bluestein(s.n)) return FftForm::kBluestein;
  if (is_power_of_two(s.n)) {
    if (s.n >= (s.wide ? 16384 : 32768)) return FftForm::kFourStep;
  } else if (s.n >= 8193 && (int64_t{s.n} + s.n / 16 + 1) * s.complex_bytes() > limit) {
    return FftForm::kFourStep;
  }
  return std::nullopt;
}

FftRoute route_fft(const FftShape& s, const ShapeHint& h, int64_t limit) {
  if (const auto form = fft_form_by_size(s, limit)) return {*form, {}, {}};
  if (h.core != 1) {
    if (auto route = power_route(s, h, limit)) return *std::move(route);
  }
  if (auto route = pair_route(s, h)) return *std::move(route);
  if (auto route = register_route(s, h, limit)) return *std::move(route);

  FftRoute route{FftForm::kShared, {}, shared_kernel(s, h, limit)};
  const bool too_large = static_cast<int64_t>(route.shared.shared_bytes()) > limit;
  // Half storage computes in float, and takes as much shared memory.
  if (too_large && codegen::four_step_split(s.n, s.wide ? 2 : 1, limit).first != 0) {
    route.form = FftForm::kFourStep;
  }
  return route;
}

}  // namespace kevra::ops
