// The samples of frames on their way into a transform: times the window, reflected at the signal's
// ends. The kernel has `yb`, the row of SIG_LEN samples, `win` unless its frames have no window,
// and refl in place.
#pragma once

#include <string>
#include <vector>

#include "codegen/kernel_writer.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// The window's value at `index`, in the compute type.
std::string window_expr(const KernelWriter& w, const StftConfig& config, const std::string& index);

// Sample `index` of frame `frame`, windowed.
std::string windowed_sample(const KernelWriter& w, const StftConfig& config,
                            const std::string& frame, const std::string& index);

// Two neighbouring samples of `frame`, 2 index and 2 index + 1, in scalars named `even` and `odd`.
struct SamplePair {
  std::string even;
  std::string odd;
  std::string index;
};
// Declares and fills the pairs; zeros for a frame past NFRAMES, which has to run on to the
// barriers. Where two floats load at once, frames away from the ends do so.
void emit_sample_pairs(KernelWriter& w, const StftConfig& config,
                       const std::vector<SamplePair>& pairs);

// The frame as n_fft / 2 complex points, even samples real and odd samples imaginary: into `sh` in
// bit-reversed order, or into `buffer` in natural order. No barrier behind.
void bitrev_frame_load(KernelWriter& w, const StftConfig& config);
void packed_frame_load(KernelWriter& w, const StftConfig& config, const std::string& buffer);
// Frames fA and fB as real and imaginary parts of n_fft points.
void frame_pair_load(KernelWriter& w, const StftConfig& config, const std::string& buffer);

}  // namespace kevra::codegen
