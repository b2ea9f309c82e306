// From the gradients of mel bands to those of the bins behind them: `coef`, the gradient of each
// band's weighted sum, then c X for each bin X, where c gathers what the bands of that bin pass on.
// One kernel that goes on to the frames' gradients, and two through device memory.
#pragma once

#include <cstddef>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/adjoint_frame.h"

namespace kevra::codegen {

// What of the forward pass shapes the text.
struct BandRule {
  int n_mels;
  int power;  // the bank is applied to magnitudes (1) or powers (2)
  int form;   // output_form of a band
  double eps;
  // Some bin has more than two bands. An ordinary bank names both of a bin's bands; here those two
  // are the first and the last, and the rows between are asked for the bin.
  bool crowded;

  // Whether a band's gradient depends on its value.
  bool reads_sums() const;
};

// mel_adjoint (gM, y, graw, win, fb_lo, fb_off, fb_w, bin_b0, bin_b1, bin_w0, bin_w1, twg, NF,
// SIG_LEN, out_len, sb, sk, st): a block a frame, grid (NF, batch). The gradient of band m of frame
// f of batch row b stands at b sb + f st + m sk.
struct MelAdjointKernel {
  static constexpr const char* kName = "mel_adjoint";

  AdjointFrame frame;
  BandRule rule;

  std::string key() const;
  std::string source(const Backend& backend) const;
  size_t shared_bytes() const;
};

// kevra_meladjcoef (gM, X, fb_lo, fb_off, fb_w, coef, NF, sb, sk, st, row0): rows of n_mels values
// of `coef` from rows of n_fft / 2 + 1 bins; a thread a band, grid (blocks, rows).
struct MelGradientSums {
  static constexpr const char* kName = "kevra_meladjcoef";
  static constexpr int kBlock = 256;

  int n_fft;
  int prec;
  BandRule rule;

  std::string key() const;
  std::string source(const Backend& backend) const;
  unsigned blocks() const { return static_cast<unsigned>((rule.n_mels + kBlock - 1) / kBlock); }
};

// kevra_meladjpack (X, coef, fb_lo, fb_off, fb_w, bin_b0, bin_b1, bin_w0, bin_w1, bufA, row0): rows
// of n_fft values, the conjugate gradients of the bins and zeros above them; a thread a value.
struct MelGradientPack {
  static constexpr const char* kName = "kevra_meladjpack";
  static constexpr int kBlock = 256;

  int n_fft;
  int prec;
  BandRule rule;

  std::string key() const;
  std::string source(const Backend& backend) const;
  unsigned blocks() const { return static_cast<unsigned>((n_fft + kBlock - 1) / kBlock); }
};

}  // namespace kevra::codegen
