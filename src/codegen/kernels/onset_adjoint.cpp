#include "codegen/kernels/onset_adjoint.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/prelude.h"

namespace kevra::codegen {

std::string OnsetAdjointKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("I64 row = (I64)$;", backend.block_index_x());
  w.stmt("I64 frame = row % frames;");
  w.line("  // the rows outside an item belong to another one");
  w.stmt("bool before = frame > 0, after = frame + 1 < frames;");
  w.stmt("$ into = before ? gy[row] / ($)bins : ($)0;", t, t, t);
  w.stmt("$ out_of = after ? gy[row + 1] / ($)bins : ($)0;", t, t, t);
  w.stmt("for (I64 k = tid; k < bins; k += $) {", kBlock);
  w.stmt("  $ here = m[row * bins + k];", t);
  w.stmt("  $ g = ($)0;", t, t);
  w.stmt("  if (before && here > m[(row - 1) * bins + k]) g += into;");
  w.stmt("  if (after && m[(row + 1) * bins + k] > here) g -= out_of;");
  w.stmt("  gm[row * bins + k] = g;");
  w.stmt("}");
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "m")
             .add_const_pointer(t, "gy")
             .add_pointer(t, "gm")
             .add_scalar("I64", "frames")
             .add_scalar("I64", "bins")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
