#include "cuda_like/ops/istft_route.h"

#include <algorithm>

#include "codegen/precision.h"
#include "codegen/sizes.h"

namespace kevra::ops {

bool istft_is_staged(int n_fft, int compute, int64_t shared_limit) {
  const int length = n_fft % 2 != 0 ? n_fft : n_fft / 2;
  return !codegen::fits_shared(length, compute, shared_limit) || codegen::needs_bluestein(length);
}

IstftRoute route_istft(const IstftShape& shape, const codegen::ShapeHint& hint,
                       int64_t shared_limit) {
  constexpr int kLargestBlock = 1024;
  const int compute = shape.wide ? codegen::kDouble : codegen::kFloat;
  IstftRoute route{.staged = istft_is_staged(shape.n_fft, compute, shared_limit),
                   .kernel = {.n_fft = shape.n_fft,
                              .hop = shape.hop,
                              .compute = compute,
                              .storage = shape.half ? codegen::kHalf : compute,
                              .slots = shape.slots}};
  if (route.staged) {
    route.kernel.slots = true;
  } else {
    route.kernel.tpf = hint.tpf > 0 ? std::min(hint.tpf, kLargestBlock)
                                    : std::clamp(route.kernel.length(), 32, 256);
  }
  return route;
}

}  // namespace kevra::ops
