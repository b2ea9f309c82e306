#include "cuda_like/ops/route_explain.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "codegen/precision.h"
#include "codegen/sizes.h"
#include "codegen/stft_config.h"
#include "cuda_like/device.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/istft_route.h"

namespace kevra::ops {
namespace {

using namespace codegen;

void explain_frames(RouteReport& report, int n_fft, int prec, int64_t cap) {
  constexpr int kFrames = 8;
  const StftRequest request{.prec = prec,
                            .n_fft = n_fft,
                            .hop = std::max(n_fft / 4, 1),
                            .pad = n_fft / 2,
                            .length = kFrames * n_fft,
                            .frames = kFrames,
                            .form = 0,
                            .eps = 1e-10};
  const StftConfig s = route_stft(request, {}, cap);
  report.emplace_back("core", std::string(core_name(s.core)));
  report.emplace_back("staged", s.core == StftCore::kFourStep);
  report.emplace_back("two_for_one", s.pair);
  report.emplace_back("n1", int64_t{s.n1});
  report.emplace_back("n2", int64_t{s.n2});
}

void explain_istft(RouteReport& report, int n_fft, int prec, int64_t cap) {
  const bool fits = !istft_is_staged(n_fft, prec, cap);
  const char* core = !fits ? "four_step" : is_power_of_two(n_fft) ? "cooley_tukey" : "mixed";
  report.emplace_back("core", std::string(core));
  report.emplace_back("staged", !fits);
  report.emplace_back("two_for_one", n_fft % 2 != 0);
}

void explain_transform(RouteReport& report, int n_fft, int length, int prec, int64_t cap) {
  std::string core = is_power_of_two(n_fft)    ? "cooley_tukey"
                     : needs_bluestein(length) ? "bluestein"
                                               : "mixed";
  const auto [n1, n2] = four_step_split(length, prec, cap);
  if (n1 != 0) core = "four_step";
  report.emplace_back("core", core);
  if (n1 != 0) {
    report.emplace_back("n1", int64_t{n1});
    report.emplace_back("n2", int64_t{n2});
  }
  report.emplace_back("staged", n1 != 0);
}

}  // namespace

RouteReport route_explain(const std::string& op, int64_t n_wide, int prec, int device) {
  const bool frames = op == "stft" || op == "mel";
  if (!frames && op != "istft" && op != "fft" && op != "rfft") {
    throw std::invalid_argument("route_explain: unknown op " + op);
  }
  // The frame report's signal of eight frames must stay a 32-bit length.
  require_at_least("route_explain", "n_fft", n_wide, 0);
  require_at_most("route_explain", "n_fft", n_wide, std::numeric_limits<int>::max() / 8);
  const int n_fft = static_cast<int>(n_wide);
  select_device(device);
  const int64_t cap = device_shared_limit(device);
  const int compute = compute_precision(prec);
  const int length = std::max(op != "fft" && n_fft % 2 == 0 ? n_fft / 2 : n_fft, 1);

  const bool bluestein = needs_bluestein(length);
  RouteReport report;
  report.emplace_back("op", op);
  report.emplace_back("n_fft", int64_t{n_fft});
  report.emplace_back("odd", n_fft % 2 != 0);
  report.emplace_back("pow2", n_fft >= 2 && is_power_of_two(n_fft));
  report.emplace_back("frame_len", int64_t{length});
  report.emplace_back("schedule", factorize(length));
  report.emplace_back("rader_prime", int64_t{rader_prime(length)});
  report.emplace_back("bluestein", bluestein);
  report.emplace_back("bluestein_m", int64_t{bluestein ? bluestein_m(length) : 0});
  report.emplace_back("smem", static_cast<int64_t>(fft_shared_bytes(length, compute)));
  report.emplace_back("smem_cap", cap);

  if (frames) {
    explain_frames(report, n_fft, compute, cap);
  } else if (op == "istft") {
    explain_istft(report, n_fft, compute, cap);
  } else {
    explain_transform(report, n_fft, length, compute, cap);
  }
  return report;
}

}  // namespace kevra::ops
