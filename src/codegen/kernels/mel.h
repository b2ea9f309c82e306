// Bands of spectra in one kernel: the frame's spectrum stays in shared memory, where a bank of
// filters reads it, and so do the bands where the kernel goes on to their cepstra. Beside it the
// kernel that reduces spectra already in device memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/frame_transform.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// What becomes of the spectra, of magnitude (`power` 1) or of power (2). With cepstra the frames
// have a power of two of samples and the bands are decibels.
struct BandShape {
  int n_mels;
  int power;
  int n_cepstra = 0;  // 0 stores the bands themselves
};
// The schedule of a request whose spectra go through bands: route_stft's, with room left for the
// spectra and for bands that stay. The four-step core stands for frames that leave none.
StftConfig route_mel(const StftRequest& request, const BandShape& bands, const ShapeHint& hint,
                     int64_t cap);

// The precision of powers, weights and sums: that of the arithmetic, but float where it is half.
// The square of a bin that a half holds need not fit one.
int band_precision(const StftConfig& config);

// The kernel takes (y, mel, tw, win, fb_lo, fb_off, fb_w, NFRAMES, SIG_LEN): rows of SIG_LEN
// samples in, rows of NFRAMES times n_mels values out. The bank shapes no text. With config.ncep a
// matrix D of ncep x n_mels follows the arguments, and rows of NFRAMES times ncep values come out:
// the products of D with the bands.
struct MelKernel {
  static constexpr const char* kName = "kevra_mel";

  StftConfig config;

  std::string key() const;
  int block() const { return frame_block(config); }
  unsigned blocks(int frames) const { return frame_blocks(config, frames); }
  size_t shared_bytes() const;
};
std::string mel_source(const MelKernel& kernel, const Backend& backend);

// Bands of rows of `bins` values in device memory: a thread a band, grid (blocks, rows). Takes
// (P, mel, lo, off, w, row0); rows start at row0, so that more rows than a grid holds take several
// launches.
struct BandKernel {
  static constexpr const char* kName = "kevra_melred";
  static constexpr int kBlock = 256;

  int bins;
  int n_mels;
  int compute;
  int storage;  // of the result
  int form;
  double eps;

  std::string key() const;
  unsigned blocks() const { return static_cast<unsigned>((n_mels + kBlock - 1) / kBlock); }
};
std::string band_source(const BandKernel& kernel, const Backend& backend);

}  // namespace kevra::codegen
