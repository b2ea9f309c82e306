// From the gradient of a spectrogram to the gradients of its frames in one kernel: a block a frame,
// grid (NF, batch). stft_adjoint_crop makes the signal's gradient of them.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/kernels/adjoint_frame.h"
#include "codegen/kernels/spectrum_output.h"

namespace kevra::codegen {

// stft_adjoint (gX, graw, win, twg, NF, out_len, sb, sk, st) for gradients of complex bins;
// stft_adjoint_mode (gS, y, graw, win, twg, NF, SIG_LEN, out_len, sb, sk, st) for those of a real
// form, which needs the frame's spectrum. The gradient of bin k of frame f of batch row b stands at
// b sb + f st + k sk.
struct StftAdjointKernel {
  AdjointFrame frame;
  int form;
  double eps;

  bool is_mode() const { return form != kComplexForm; }
  const char* name() const { return is_mode() ? "stft_adjoint_mode" : "stft_adjoint"; }
  std::string key() const;
  std::string source(const Backend& backend) const;
  size_t shared_bytes() const { return frame.shared_bytes(is_mode()); }
};

}  // namespace kevra::codegen
