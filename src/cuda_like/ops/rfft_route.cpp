#include "cuda_like/ops/rfft_route.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "codegen/sizes.h"
#include "cuda_like/ops/fft_route.h"

namespace kevra::ops {
namespace {

using codegen::is_power_of_two;
using codegen::RealFftKernel;
using codegen::RegisterRealFftKernel;
using codegen::ShapeHint;

// Above this the four-step path is the faster one of the double twin, even where a row fits.
constexpr int64_t kWideSharedBytes = 49152;

bool wants_registers(const RfftShape& s, const ShapeHint& h, int length) {
  if (h.core == 1 || h.core == 2) return h.core == 2;
  if (s.n % 2 != 0) return true;
  if (s.wide) return length >= (is_power_of_two(length) ? 16 : 32);
  return !s.inverse && length >= 32;
}

int values_per_thread(const RfftShape& s, int length) {
  if (s.wide) return length >= 4096 ? 16 : 8;
  if (s.half) return length <= 64 ? 4 : length <= 128 ? 8 : 16;
  return length <= 128 ? 4 : length <= 1024 ? 8 : 16;
}

std::vector<int> power_of_two_radices(const RfftShape& s, const ShapeHint& h, int length) {
  int ept = h.ept > 0 ? std::min(h.ept, kLargestEpt) : values_per_thread(s, length);
  while (length % ept != 0) ept /= 2;
  // One value a thread would peel for ever.
  if (ept < 2) return {};
  return peel_radices(length, ept, ept);
}

std::vector<int> uniform_radices(const RfftShape& s, const ShapeHint& h, int length) {
  const bool odd = s.n % 2 != 0;
  int lo = s.wide || odd ? 5 : 8;
  int hi = s.wide && !odd ? 12 : 25;
  if (h.ept > 0) {
    lo = hi = std::min(h.ept, kLargestEpt);
  } else if (length == 625 || (s.wide && length == 125)) {
    lo = hi = 5;  // 25 doubles of 125 a thread spill on gfx1030
  } else if (!s.wide && (length == 48 || length == 500)) {
    lo = hi = length == 48 ? 6 : 10;
  }
  return codegen::find_uniform_schedule(length, lo, hi);
}

std::optional<RegisterRealFftKernel> register_kernel(const RfftShape& s, const ShapeHint& h,
                                                     int64_t limit) {
  const int length = s.rows().length();
  RegisterRealFftKernel kernel{.data = s.rows(),
                               .radices = is_power_of_two(length)
                                              ? power_of_two_radices(s, h, length)
                                              : uniform_radices(s, h, length)};
  if (kernel.radices.empty()) return std::nullopt;
  const int threads = kernel.layout().threads();
  const int rows = h.fpb > 0 ? h.fpb : std::max(64 / threads, 1);
  kernel.transforms_per_block = std::min(rows, kBlockLimit / threads);
  if (kernel.transforms_per_block < 1) return std::nullopt;
  if (static_cast<int64_t>(kernel.shared_bytes()) > limit) return std::nullopt;
  return kernel;
}

RealFftKernel shared_kernel(const RfftShape& s, const ShapeHint& h, int64_t limit) {
  const int length = s.rows().length();
  const int var = std::max(h.var, 0);
  int tpf = std::min(std::max(length / 8, 16), 256);
  int rows = is_power_of_two(length) ? std::max(64 / tpf, 1) : 1;
  if (h.tpf > 0) tpf = std::min(h.tpf, kBlockLimit);
  if (h.fpb > 0) rows = std::min(h.fpb, kBlockLimit);
  if (s.n % 2 != 0) rows = 1;

  RealFftKernel kernel{.data = s.rows(),
                       .tpf = tpf,
                       .transforms_per_block = rows,
                       .padded = (var & kVarPadded) != 0 && codegen::rader_extra(length) == 0,
                       .radix25 = (var & kVarRadix25) != 0 && length % 25 == 0};
  const auto too_large = [&] { return static_cast<int64_t>(kernel.shared_bytes()) > limit; };
  while (kernel.transforms_per_block > 1 && (too_large() || kernel.block() > kBlockLimit)) {
    --kernel.transforms_per_block;
  }
  if (too_large()) kernel.padded = false;  // a wish for padding must not cost a size that fits
  return kernel;
}

}  // namespace

const char* rfft_form_name(RfftForm form) {
  switch (form) {
    case RfftForm::kBluestein:
      return "Bluestein";
    case RfftForm::kTiny:
      return "tiny";
    case RfftForm::kFourStep:
      return "four-step";
    case RfftForm::kRegister:
      return "register";
    case RfftForm::kShared:
      return "shared-memory";
  }
  return "?";
}

bool odd_native(int n, bool wide, int64_t shared_limit) {
  if (n % 2 == 0 || n < 9) return false;
  const int64_t elements = int64_t{n} + 1 + (n >> 4) + codegen::rader_extra(n);
  if ((wide ? 16 : 8) * elements > shared_limit) return false;
  if (!codegen::find_uniform_schedule(n, 5, 25).empty()) return true;
  const std::vector<int> radices = codegen::factorize(n);
  return std::all_of(radices.begin(), radices.end(), [](int r) {
    if (r <= 16) return true;
    int rest = 1;
    codegen::factorize(r - 1, &rest);
    return codegen::is_prime(r) && rest == 1;
  });
}

std::optional<RfftForm> rfft_form_by_size(const RfftShape& s, int64_t limit) {
  if (codegen::needs_bluestein(s.n)) return RfftForm::kBluestein;
  if (s.n < 4) return RfftForm::kTiny;
  if (s.n % 2 != 0) {
    if (odd_native(s.n, s.wide, limit)) return std::nullopt;
    return RfftForm::kBluestein;
  }
  const int h = s.n / 2;
  const int longest = is_power_of_two(s.n) ? (s.wide ? 8191 : 16383) : 8192;
  return h > longest ? std::optional(RfftForm::kFourStep) : std::nullopt;
}

RfftRoute route_rfft(const RfftShape& s, const ShapeHint& h, int64_t limit) {
  if (const auto form = rfft_form_by_size(s, limit)) return {*form, {}, {}};
  if (wants_registers(s, h, s.rows().length())) {
    if (auto kernel = register_kernel(s, h, limit)) {
      return {RfftForm::kRegister, *std::move(kernel), {}};
    }
  }
  const bool even = s.n % 2 == 0;
  const int64_t longest = s.wide && even ? std::min(limit, kWideSharedBytes) : limit;
  RfftRoute route{RfftForm::kShared, {}, shared_kernel(s, h, longest)};
  if (even && static_cast<int64_t>(route.shared.shared_bytes()) > longest) {
    route.form = RfftForm::kFourStep;
  }
  return route;
}

}  // namespace kevra::ops
