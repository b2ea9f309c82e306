// From a spectrogram back to signals: each frame's inverse transform times the window,
// overlap-added and divided by the sum of the squared windows.
//
// Two kernels where a frame fits a block's shared memory: `istft_frames` takes (Z, yraw, win, twg,
// NF, out_len, sb, sk, st) and `istft_normalize` (yraw, y, win, L, pad, NF, out_len). Bin k of
// frame f of batch row b is Z[b * sb + f * st + k * sk], in complex values.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"

namespace kevra::codegen {

// What shapes the text of the two. An odd n_fft takes two frames through one complex transform, an
// even one folds a frame into half its length.
struct IstftKernel {
  static constexpr const char* kFramesName = "istft_frames";
  static constexpr const char* kNormalizeName = "istft_normalize";
  static constexpr int kNormalizeBlock = 256;

  int n_fft;
  int hop;
  int compute;  // precision of the arithmetic: half storage computes in float
  int storage;
  // `yraw` holds every frame for itself, [batch][NF][n_fft], and a sample sums its frames in their
  // order; else it is one row of out_len a batch row, which frames add to by atomics.
  bool slots;
  int tpf = 0;  // threads to a block of istft_frames; 0 where another kernel makes the frames

  std::string frames_key() const;
  std::string normalize_key() const;
  bool pairs() const { return n_fft % 2 != 0; }
  int bins() const { return n_fft / 2 + 1; }
  // Of the complex transform.
  int length() const { return pairs() ? n_fft : n_fft / 2; }
  // Roots in the table of a double kernel.
  int table_size() const { return pairs() ? 2 * n_fft : n_fft; }
  size_t shared_bytes() const;
};

std::string istft_frames_source(const IstftKernel& kernel, const Backend& backend);
std::string istft_normalize_source(const IstftKernel& kernel, const Backend& backend);

// The steps around a transform of frames in device memory, `frames` being [batch][NF][n_fft]. Both
// forms of the gather lay the strided bins of a row of the batch's frames side by side, from row0
// on: kevra_zgather (Z, z, NF, sb, sk, st, row0) all n_fft / 2 + 1 of them, kevra_zpack (Z, z, tw,
// NF, sb, sk, st, row0) folded to n_fft / 2. kevra_wscale (frames, win, NF) multiplies by the
// window.
struct IstftGather {
  static constexpr int kBlock = 256;

  int n_fft;
  int compute;
  int storage;

  bool packs() const { return n_fft % 2 == 0; }
  const char* name() const { return packs() ? "kevra_zpack" : "kevra_zgather"; }
  std::string key() const;
  // Values that a row becomes.
  int count() const { return packs() ? n_fft / 2 : n_fft / 2 + 1; }
  std::string source(const Backend& backend) const;
};

struct FrameWindow {
  static constexpr const char* kName = "kevra_wscale";
  static constexpr int kBlock = 256;

  int n_fft;
  int compute;

  std::string key() const;
  std::string source(const Backend& backend) const;
};

}  // namespace kevra::codegen
