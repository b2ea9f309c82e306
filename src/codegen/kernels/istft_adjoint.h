// From the gradient of a signal to the gradient of the spectrogram that it was made from: the
// transpose of the inverse transforms, the window, the overlap-add and its division.
//
// istft_adjoint_pre divides the gradient of each sample by the sum of squared windows over it. A
// frame then takes its samples times w / n_fft through a forward transform; bins that the inverse
// also takes as their mirrors count twice, the first and, of an even n_fft, the last once and
// without their imaginary parts.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/adjoint_frame.h"

namespace kevra::codegen {

// istft_adjoint_pre (gy, g, win, L, pad, NF, out_len): rows of L gradients to rows of out_len, the
// padding included; zeros where the forward pass cut off, or where hardly a window reaches.
struct IstftGradientPre {
  static constexpr const char* kName = "istft_adjoint_pre";
  static constexpr int kBlock = 256;

  int n_fft;
  int hop;
  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

// istft_adjoint (g, gZ, win, twg, NF, out_len): a block a frame, grid (NF, batch); gZ is
// [batch][NF][n_fft / 2 + 1].
struct IstftAdjointKernel {
  static constexpr const char* kName = "istft_adjoint";

  AdjointFrame frame;

  std::string key() const { return frame.key("adj_istft"); }
  std::string source(const Backend& backend) const;
  size_t shared_bytes() const { return frame.shared_bytes(false); }
};

// The steps around a real transform in device memory, from row row0 of the batch's frames on.
// kevra_giadjgather (gpad, frames, win, NF, HOPv, out_len, row0): frames of n_fft samples.
struct IstftGradientGather {
  static constexpr const char* kName = "kevra_giadjgather";
  static constexpr int kBlock = 256;

  int n_fft;
  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
  unsigned blocks() const { return static_cast<unsigned>((n_fft + kBlock - 1) / kBlock); }
};

// kevra_giadjstore (spec, gZ, row0): the bins' gradients from their transforms.
struct IstftGradientStore {
  static constexpr const char* kName = "kevra_giadjstore";
  static constexpr int kBlock = 256;

  int n_fft;
  int prec;

  std::string key() const;
  std::string source(const Backend& backend) const;
  unsigned blocks() const { return static_cast<unsigned>((n_fft / 2 + kBlock) / kBlock); }
};

}  // namespace kevra::codegen
