// The way of a gradient from a spectrogram back to the signal through device memory, for frames
// that no block's shared memory holds: the conjugate gradient of each frame's bins as n_fft complex
// values, an ordinary transform, the window, and the sum of the frames.
//
// Over the bins k = 0 .. n_fft / 2 of a frame, whose gradients are G[k], sample i of the frame
// receives w[i] Re(sum of conj(G[k]) exp(-2 pi i k i / n_fft)): a forward transform of what
// `kevra_gadjpack` or `kevra_gchain` lay down.
#pragma once

#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// kevra_gadjpack (gX, z, NF, sb, sk, st, row0): the conjugates of complex gradients, zeros above
// bin n_fft / 2. Gradients of bin k, frame f, batch row b stand at b sb + f st + k sk.
struct GradientPack {
  static constexpr const char* kName = "kevra_gadjpack";
  static constexpr int kBlock = 256;

  int n_fft;
  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
  unsigned blocks() const { return static_cast<unsigned>((n_fft + kBlock - 1) / kBlock); }
};

// kevra_gchain (gS, X, z, NF, sb, sk, st, row0): the same from the gradients of a real form and the
// spectra X, rows of n_fft / 2 + 1 bins.
struct GradientChain {
  static constexpr const char* kName = "kevra_gchain";
  static constexpr int kBlock = 256;

  int n_fft;
  int prec;
  int form;
  double eps;

  std::string key() const;
  std::string source(const Backend& backend) const;
  unsigned blocks() const { return static_cast<unsigned>((n_fft + kBlock - 1) / kBlock); }
};

// kevra_gwreal (F, frames, win, NF): the real parts times the window, a block a frame on grid (NF,
// batch).
struct GradientWindow {
  static constexpr const char* kName = "kevra_gwreal";
  static constexpr int kBlock = 256;

  int n_fft;
  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// stft_adjoint_crop (graw, gx, L, PAD, NF, out_len): the gradient of each of L samples, summed over
// its places in the padded signal: its own, and those that reflect it.
struct GradientCrop {
  static constexpr const char* kName = "stft_adjoint_crop";
  static constexpr int kBlock = 256;

  int n_fft;
  int hop;
  int prec;
  // `graw` is [batch][NF][n_fft], and frames are summed in their order; else [batch][out_len], in
  // which they are summed already.
  bool slots;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
