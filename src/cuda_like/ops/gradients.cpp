#include "cuda_like/ops/gradients.h"

#include <stdexcept>
#include <string>

#include "codegen/precision.h"
#include "codegen/sizes.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {

void require_full_precision(int prec, const char* refusal) {
  constexpr int kPackedHalf = 3;
  if (prec == codegen::kHalf || prec == kPackedHalf) throw std::invalid_argument(refusal);
}

GradientSizes gradient_sizes(const char* op, int64_t batch, int64_t length, int64_t frames,
                             int64_t n_fft, int64_t hop, bool center) {
  require_int32(op, "batch", batch, 0);
  const int64_t pad = frame_padding(n_fft, center);
  const int64_t expected = frame_count(length, n_fft, hop, pad, op);
  if (frames != expected) {
    throw std::invalid_argument(std::string(op) + ": frames is " + std::to_string(frames) +
                                ", must be " + std::to_string(expected) + ", as many as " +
                                std::to_string(length) + " samples have");
  }
  return {.n_fft = static_cast<int>(n_fft),
          .hop = static_cast<int>(hop),
          .pad = static_cast<int>(pad),
          .frames = static_cast<int>(frames),
          .length = static_cast<int>(length),
          .out_len = (frames - 1) * hop + n_fft};
}

bool gradient_is_fused(int n_fft, int prec, int device) {
  return codegen::fits_shared(n_fft, prec, device_shared_limit(device)) &&
         !codegen::needs_bluestein(n_fft);
}

}  // namespace kevra::ops
