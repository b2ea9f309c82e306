// The fused route from gradients of spectra to the gradient of a signal: one kernel over the
// frames, and the crop behind it, ready to launch.
#pragma once

#include <cstddef>

#include "codegen/kernels/adjoint_frame.h"
#include "cuda_like/device.h"
#include "cuda_like/ops/gradient_tail.h"
#include "cuda_like/ops/gradients.h"
#include "cuda_like/window.h"

namespace kevra::ops {

struct FusedGradient {
  kernel_t frames = nullptr;
  unsigned block = 0;
  size_t shared = 0;
  bool slots = false;
  kernel_t crop = nullptr;
  devptr_t window = nullptr;
  devptr_t twiddles = nullptr;
};

// The record of the frames; whether they have places of their own is the deterministic mode's say.
codegen::AdjointFrame gradient_frame(const GradientSizes& sizes, int prec);
devptr_t gradient_twiddles(const codegen::AdjointFrame& frame);

// For a record of a kernel that has `frame`. `label` names what is too large where a frame does not
// fit.
template <class Kernel>
FusedGradient fused_gradient(const Kernel& kernel, const WindowSpec& window, int device,
                             const char* label) {
  const codegen::AdjointFrame& frame = kernel.frame;
  check_shared(kernel.shared_bytes(), device, label);
  return {.frames = kernel_function(kernel, device),
          .block = static_cast<unsigned>(frame.threads()),
          .shared = kernel.shared_bytes(),
          .slots = frame.slots,
          .crop = gradient_crop(frame.n_fft, frame.hop, frame.prec, frame.slots, device),
          .window = window_table(window, frame.n_fft, frame.prec),
          .twiddles = gradient_twiddles(frame)};
}

// Memory for the gradients of the frames of `rows` batch rows, zeroed where they are sums.
template <class T>
DeviceBuffer raw_gradient(const FusedGradient& fused, const GradientSizes& sizes, int64_t rows,
                          stream_t stream);

}  // namespace kevra::ops
