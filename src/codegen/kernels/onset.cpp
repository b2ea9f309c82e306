#include "codegen/kernels/onset.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/prelude.h"

namespace kevra::codegen {

std::string OnsetKernel::source(const Backend& backend) const {
  const int storage = storage_precision(prec);
  KernelWriter w(compute_precision(prec), backend);
  const std::string a = backend.scalar_type(w.prec);
  const std::string red = backend.shared_pointer_type(a);
  w.stmt("$ red = ($)smem;", red, red);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("I64 row = (I64)$;", backend.block_index_x());
  w.stmt("I64 frame = row % frames;");
  w.stmt("$ sum = ($)0;", a, a);
  w.line("  // an item's first frame has none before it: the row above belongs to another item");
  w.stmt("if (frame > 0) for (I64 k = tid; k < bins; k += $) {", kBlock);
  w.stmt("  $ d = ($)m[row * bins + k] - ($)m[(row - 1) * bins + k];", a, a, a);
  w.stmt("  if (d > 0) sum += d;");
  w.stmt("}");
  w.stmt("red[tid] = sum;");
  w.barrier();
  w.stmt("for (int s = $; s > 0; s >>= 1) {", kBlock / 2);
  w.stmt("  if (tid < s) red[tid] += red[tid + s];");
  w.barrier();
  w.stmt("}");
  w.stmt("if (tid == 0)");
  w.stmt("  out[row] = $;", backend.convert_scalar(storage, "red[0] / (" + a + ")bins"));
  const std::string type = backend.scalar_type(storage);
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(type, "m")
             .add_pointer(type, "out")
             .add_scalar("I64", "frames")
             .add_scalar("I64", "bins")
             .set_shared("char", "smem")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
