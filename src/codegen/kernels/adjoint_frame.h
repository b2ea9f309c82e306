// One frame of a gradient's way back to the signal within a block: the spectrum of the frame, where
// the gradient of its bins depends on it; the gradients of the bins as n_fft complex values; their
// transform; its real part times the window, into the frame's place.
//
// Kernels built from these pieces take `y`, rows of SIG_LEN samples, `graw`, `win`, `twg`, NF and
// out_len among their parameters and have complex values in `sh_all`.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernel_writer.h"

namespace kevra::codegen {

struct AdjointFrame {
  int n_fft;
  int hop;
  int pad;  // of the signal, at either end
  int prec;
  // `graw` is [batch][NF][n_fft], every frame in a place of its own; else [batch][out_len], where
  // frames add up by atomics, in any order.
  bool slots;

  int bins() const { return n_fft / 2 + 1; }
  int threads() const;
  // Of the transform, its prime stage's scratch included; behind it stands the spectrum.
  int points() const;
  size_t shared_bytes(bool with_spectrum) const;
  // What of this shapes a kernel's text, behind the operation's `prefix`.
  std::string key(const char* prefix) const;
};

// Vocabulary, NB, TPF, HOP and SHP. Kernels that read the signal add refl.
std::string adjoint_prelude(const AdjointFrame& frame, const Backend& backend);

// Names tid, frame, batch and the block's array `bufA`.
void emit_adjoint_map(KernelWriter& w, const AdjointFrame& frame);

// The forward transform of the n_fft values that the block's threads have put into bufA, with a
// barrier before and behind.
void emit_adjoint_transform(KernelWriter& w, const AdjointFrame& frame);

// The frame's transform from `y`: NB bins in shared memory, named `Xs`, behind a barrier.
void emit_frame_spectrum(KernelWriter& w, const AdjointFrame& frame);

// Lays the conjugate of every bin's gradient into bufA, zeros above the last bin: that gradient is
// c X, X being the bin of `Xs` and c what `emit_factor` names for bin `j`.
using BinFactor = std::function<void(const std::string& j)>;
void emit_scaled_bins(KernelWriter& w, const AdjointFrame& frame, const BinFactor& emit_factor);

// From the values in bufA, written by the block's threads without a barrier behind, to graw.
void emit_frame_gradient(KernelWriter& w, const AdjointFrame& frame);

}  // namespace kevra::codegen
