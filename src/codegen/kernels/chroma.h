// Pitch classes of a constant-Q magnitude spectrogram.
#pragma once

#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// out[batch][c][t] = the sum of mag[batch][i][t] over the bins i with cls[i] = c, over the largest
// such sum of the frame. A thread has a frame; grid (blocks of frames, batch). Takes (mag, out,
// cls, n_bins, nf).
struct ChromaKernel {
  static constexpr const char* kName = "kevra_chroma";

  int compute;
  int n_chroma;
  int storage;  // of the result

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// gmag[batch][i][t] = g[batch][cls[i]][t] over the frame's peak, as the kernel above has it: the
// gradient of its result with the peak taken for a constant. Takes (mag, gmag, g, cls, n_bins, nf).
struct ChromaAdjointKernel {
  static constexpr const char* kName = "kevra_chradj";

  int compute;
  int n_chroma;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
