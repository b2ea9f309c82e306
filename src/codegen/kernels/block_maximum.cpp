#include "codegen/kernels/block_maximum.h"

namespace kevra::codegen {

void emit_block_maximum(KernelWriter& w, const std::string& value, int threads) {
  w.stmt("red[tid] = $;", value);
  w.barrier();
  w.stmt("for (int s = $; s > 0; s >>= 1) {", threads / 2);
  w.stmt("  if (tid < s && red[tid + s] > red[tid]) red[tid] = red[tid + s];");
  w.barrier();
  w.stmt("}");
}

}  // namespace kevra::codegen
