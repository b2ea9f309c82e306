// Whole transforms in shared memory: a sequence of passes with barriers between them, each thread
// carrying its values across the barrier in registers. Every barrier stands outside all guards,
// and all threads of the block must reach it.
#pragma once

#include <string>
#include <vector>

#include "codegen/kernel_writer.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// One in-place Stockham stage of radix `r` on the n elements of `buffer`, which hold transforms of
// length `done` behind it. Natural order in and out; the threads of the transform are `tid` below
// `tpf`.
struct Stage {
  std::string buffer;
  int n;
  int r;
  int done;  // the product of the radices before this one
  int tpf;
  bool conjugate;
};
void emit_stage(KernelWriter& w, const Stage& stage, const std::string& comment);

// All stages, in the order of `radices`, whose product is n. Conjugate roots scale as butterfly()
// tells. A prime radix above 13 takes twice the shared memory (rader_extra), has to be the last and
// is forward only: std::logic_error otherwise.
void emit_fft_stages(KernelWriter& w, const std::string& buffer, int n,
                     const std::vector<int>& radices, int tpf, bool conjugate);

// The power-of-two core of the frame kernels on array `sh`: decimation in time on n_fft / 2
// elements in bit-reversed order, several radix-2 stages to a pass.
std::vector<int> ct_pass_groups(const StftConfig& config);
void emit_ct_pass(KernelWriter& w, const StftConfig& config, int first_stage, int stage_count);
void emit_ct_passes(KernelWriter& w, const StftConfig& config);

// `count` transforms of `length` side by side, element i of transform b at RSP(i * count + b), by
// `threads` threads named `tid`. Forward, natural order.
void emit_batched_fft(KernelWriter& w, const std::string& buffer, int count, int length,
                      int threads);

// Tells the writer of a double kernel's table `name`: n roots, and behind them the roots of the
// cyclic length of a prime radix. Float kernels compute theirs.
void register_twiddle_table(KernelWriter& w, int prec, int n, const std::string& name,
                            const std::vector<int>& radices);

}  // namespace kevra::codegen
