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
  // Whether a frame runs as n_fft / 2 complex points, even samples real and odd ones imaginary.
  bool is_packed() const { return n_fft % 2 == 0 && n_fft > 2; }
  int size() const;  // of the transform
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

// The transform of a frame whose sample `i` is the text `sample` makes: `store` takes each of the
// NB bins, a number and a name of its value, once. A barrier stands before the bins, none behind.
using FrameSample = std::function<std::string(const std::string& i)>;
using BinStore = std::function<void(const std::string& k, const std::string& value)>;
void emit_frame_bins(KernelWriter& w, const AdjointFrame& frame, const FrameSample& sample,
                     const BinStore& store);

// That of the signal `y`: NB bins in shared memory, named `Xs`, behind a barrier.
void emit_frame_spectrum(KernelWriter& w, const AdjointFrame& frame);

// From the gradients of the bins to the points in bufA that emit_frame_gradient goes on from.
// `gradient` makes the text of a bin's, which one thread reads.
using BinGradient = std::function<std::string(const std::string& k)>;
void emit_gradient_points(KernelWriter& w, const AdjointFrame& frame, const BinGradient& gradient);

// The same for gradients c X, X being the bin of `Xs` and c what `emit_factor` names for bin `j`.
// Leaves the gradients in `Xs`.
using BinFactor = std::function<void(const std::string& j)>;
void emit_scaled_bins(KernelWriter& w, const AdjointFrame& frame, const BinFactor& emit_factor);

// From those points, written without a barrier behind, to graw.
void emit_frame_gradient(KernelWriter& w, const AdjointFrame& frame);

}  // namespace kevra::codegen
