// The stage of a prime radix in shared memory: the cyclic convolution of rader.h by transforms of
// all groups side by side.
#pragma once

#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// The last stage of an n-point transform, in place on the n elements of `buffer`, with
// rader_extra(n) elements of scratch behind them. Forward only. Kernels whose table
// (register_twiddle_table) holds the stage's filter read filter and index maps there, and every
// thread works; others have them as literals, and one thread takes a whole group.
struct RaderStage {
  std::string buffer;
  int n;
  int prime;
  int tpf;

  int groups() const { return n / prime; }
  int cyclic() const { return prime - 1; }  // length of the convolution
};
void emit_rader_stage(KernelWriter& w, const RaderStage& stage);

}  // namespace kevra::codegen
