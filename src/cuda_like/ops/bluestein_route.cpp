#include "cuda_like/ops/bluestein_route.h"

#include <algorithm>

#include "codegen/precision.h"
#include "codegen/sizes.h"

namespace kevra::ops {
namespace {

using codegen::BluesteinMode;

constexpr int kBlockLimit = 1024;

// Short real rows share their block's time with a second row: half the threads, twice the work.
int threads_to_a_row(BluesteinMode mode, int m) {
  const bool short_real = mode != BluesteinMode::kComplex && m < 1025;
  return std::clamp(short_real ? m / 32 : m / 16, 16, kBlockLimit);
}

}  // namespace

std::optional<codegen::BluesteinKernel> bluestein_in_shared(const BluesteinShape& s,
                                                            int64_t shared_limit) {
  if (s.half || (s.wide && s.mode != BluesteinMode::kComplex)) return std::nullopt;
  const int m = codegen::bluestein_m(s.n);
  const codegen::BluesteinKernel kernel{.mode = s.mode,
                                        .n = s.n,
                                        .m = m,
                                        .compute = s.wide ? codegen::kDouble : codegen::kFloat,
                                        .inverse = s.inverse,
                                        .tpf = threads_to_a_row(s.mode, m)};
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
