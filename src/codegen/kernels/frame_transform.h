// From the samples of frames to their spectra, in all cores: what the kernels of the short-time
// transform and those built on it have in common.
//
// A frame of even length runs as n_fft / 2 complex points and is split into n_fft / 2 + 1 bins; of
// odd length, two frames run as one complex transform of n_fft points.
#pragma once

#include <functional>
#include <string>

#include "codegen/kernel_writer.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// The part of a frame kernel's key that its schedule makes, behind the operation's `prefix`.
std::string frame_key(const char* prefix, const StftConfig& config);
// The launch: threads of a block, and grid x; grid y is the batch.
int frame_block(const StftConfig& config);
unsigned frame_blocks(const StftConfig& config, int frames);

// A first line that tells the schedule.
std::string frame_title(const StftConfig& config);
// The head of a frame kernel up to its signature: vocabulary, refl, and NB, F, TPF, TWN, SHP.
std::string frame_prelude(const Backend& backend, const StftConfig& config);
std::string frame_defines(const StftConfig& config);

// Names frame (fA and fB under `pair`), batch, tid, the row `yb` and the array of the frame's
// transform, frame_buffer, within `sh_all`.
void emit_frame_map(KernelWriter& w, const StftConfig& config);
std::string frame_buffer(const StftConfig& config);

// Loads the frame and transforms it; the points stand in frame_buffer, in natural order, behind a
// barrier. Throws std::logic_error for the core that has no kernel.
void emit_frame_transform(KernelWriter& w, const StftConfig& config);

// Bin k of the frame as two expressions in the compute type.
using BinSink =
    std::function<void(const std::string& k, const std::string& re, const std::string& im)>;
// Every bin of the frame once, by the frame's threads. Guards are the caller's.
void emit_bins(KernelWriter& w, const StftConfig& config, const BinSink& sink);
// The same for the two frames of a pair.
void emit_pair_bins(KernelWriter& w, const StftConfig& config, const BinSink& sink_a,
                    const BinSink& sink_b);

}  // namespace kevra::codegen
