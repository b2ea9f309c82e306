// The short-time Fourier transform in one kernel: frames, window, transform, and the form of output
// or a statistic of every frame.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/frame_transform.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// The kernel takes (y, out, tw, win, NFRAMES, SIG_LEN): rows of SIG_LEN samples in, rows of
// NFRAMES spectra of n_fft / 2 + 1 bins out, or of a frame's statistic, which adds parameters of
// its own. Signal length and frame count shape no text.
struct StftKernel {
  static constexpr const char* kName = "kevra_stft";

  StftConfig config;

  std::string key() const;
  int block() const { return frame_block(config); }
  unsigned blocks(int frames) const { return frame_blocks(config, frames); }
  size_t shared_bytes() const { return total_shared_bytes(config); }
};

std::string stft_source(const StftKernel& kernel, const Backend& backend);

}  // namespace kevra::codegen
