#include "cuda_like/ops/bluestein_route.h"

#include <algorithm>

#include "codegen/precision.h"
#include "codegen/sizes.h"

namespace kevra::ops {
namespace {

using codegen::BluesteinMode;

constexpr int kBlockLimit = 1024;
constexpr int kMostOddValues = 12;  // in a thread of a double kernel, in stages of odd radix

// Short real rows share their block's time with a second row: half the threads, twice the work.
int threads_to_a_row(BluesteinMode mode, int m) {
  const bool short_real = mode != BluesteinMode::kComplex && m < 1025;
  return std::clamp(short_real ? m / 32 : m / 16, 16, kBlockLimit);
}

// In double the 15 to 20 values that m / 16 threads hold in stages of radix 5, 7 and 9 would take
// more than the 256 vector registers there are, their twiddles beside them; 12 take at most 212.
int threads_without_spills(const codegen::BluesteinKernel& kernel) {
  int threads = kernel.tpf;
  for (int r : kernel.radices()) {
    if (r % 2 == 0) continue;
    const int values = kMostOddValues / r * r;
    threads = std::max(threads, (kernel.m + values - 1) / values);
  }
  return std::min(threads, kBlockLimit);
}

}  // namespace

std::optional<codegen::BluesteinKernel> bluestein_in_shared(const BluesteinShape& s,
                                                            int64_t shared_limit) {
  if (s.half || (s.wide && s.mode != BluesteinMode::kComplex)) return std::nullopt;
  const int m = codegen::bluestein_m(s.n);
  codegen::BluesteinKernel kernel{.mode = s.mode,
                                  .n = s.n,
                                  .m = m,
                                  .compute = s.wide ? codegen::kDouble : codegen::kFloat,
                                  .inverse = s.inverse,
                                  .tpf = threads_to_a_row(s.mode, m)};
  if (s.wide) kernel.tpf = threads_without_spills(kernel);
  if (static_cast<int64_t>(kernel.shared_bytes()) > shared_limit) return std::nullopt;
  return kernel;
}

codegen::BluesteinSteps bluestein_steps(const BluesteinShape& s) {
  const int compute = s.wide ? codegen::kDouble : codegen::kFloat;
  return {.mode = s.mode,
          .n = s.n,
          .m = codegen::bluestein_m(s.n),
          .compute = compute,
          .storage = s.half ? codegen::kHalf : compute};
}

}  // namespace kevra::ops
