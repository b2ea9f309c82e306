// A kernel that reads frames of a signal and has them in one block each, ready to launch.
#pragma once

#include <cstddef>

#include "cuda_like/device.h"
#include "cuda_like/twiddles.h"
#include "cuda_like/window.h"

namespace kevra::ops {

struct FramePlan {
  kernel_t fn = nullptr;
  unsigned blocks = 0;  // to a signal
  unsigned block = 0;
  size_t shared = 0;
  devptr_t twiddles = nullptr;
  devptr_t window = nullptr;
};

// Fills `plan` for a record of a kernel. `label` names what is too large where the frame does not
// fit; `source` makes the text.
template <class Kernel, class Source>
void prepare(FramePlan& plan, const Kernel& kernel, const WindowSpec& window, int device,
             const char* label, const Source& source) {
  check_shared(kernel.shared_bytes(), device, label);
  plan.window = window_table(window, kernel.config.n_fft, kernel.config.prec);
  plan.twiddles = frame_twiddles(kernel.config);
  plan.fn = kernel_function(kernel.key(), device, source, kernel.kName);
  plan.blocks = kernel.blocks(kernel.config.frames);
  plan.block = static_cast<unsigned>(kernel.block());
  plan.shared = kernel.shared_bytes();
}

}  // namespace kevra::ops
