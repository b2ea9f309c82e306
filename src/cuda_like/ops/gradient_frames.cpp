#include "cuda_like/ops/gradient_frames.h"

#include "codegen/precision.h"
#include "codegen/sizes.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {

codegen::AdjointFrame gradient_frame(const GradientSizes& sizes, int prec) {
  return {.n_fft = sizes.n_fft,
          .hop = sizes.hop,
          .pad = sizes.pad,
          .prec = prec,
          .slots = deterministic()};
}

devptr_t gradient_twiddles(const codegen::AdjointFrame& frame) {
  return fft_twiddles(frame.n_fft, codegen::rader_prime(frame.size()),
                      frame.prec == codegen::kDouble);
}

template <class T>
DeviceBuffer raw_gradient(const FusedGradient& fused, const GradientSizes& sizes, int64_t rows,
                          stream_t stream) {
  const size_t bytes = static_cast<size_t>(rows * sizes.raw(fused.slots)) * sizeof(T);
  DeviceBuffer raw(bytes, stream);
  if (!fused.slots) KEVRA_CHECK(memsetD8Async(raw.p, 0, bytes, stream));
  return raw;
}

template DeviceBuffer raw_gradient<float>(const FusedGradient&, const GradientSizes&, int64_t,
                                          stream_t);
template DeviceBuffer raw_gradient<double>(const FusedGradient&, const GradientSizes&, int64_t,
                                           stream_t);

}  // namespace kevra::ops
