// The kernels around the ordinary transforms when frames go through device memory.
#pragma once

#include <cstdint>
#include <string>

#include "codegen/backend.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// Frames, windowed, as rows of n_fft values in the compute type: a block a frame, grid (NFRAMES,
// batch). Takes (y, frames, win, NFRAMES, SIG_LEN).
struct FramesKernel {
  static constexpr const char* kName = "kevra_frames";
  static constexpr int kBlock = 256;

  StftConfig config;

  std::string key() const;
};
std::string frames_source(const FramesKernel& kernel, const Backend& backend);

// Rows of complex bins in a form of output: a thread a bin, a block row a row. Takes (z, out,
// nrows).
struct SpectrumFormKernel {
  static constexpr const char* kName = "kevra_smode";
  static constexpr int kBlock = 256;

  int bins;
  int compute;
  int storage;  // of the result
  int form;
  double eps;

  std::string key() const;
  unsigned blocks() const { return static_cast<unsigned>((bins + kBlock - 1) / kBlock); }
};
std::string spectrum_form_source(const SpectrumFormKernel& kernel, const Backend& backend);

}  // namespace kevra::codegen
