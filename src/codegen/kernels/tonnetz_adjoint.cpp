#include "codegen/kernels/tonnetz_adjoint.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/tonnetz.h"
#include "codegen/prelude.h"

namespace kevra::codegen {

std::string TonnetzAdjointKernel::source(const Backend& backend) const {
  constexpr int kClasses = TonnetzKernel::kClasses;
  constexpr int kCoordinates = TonnetzKernel::kCoordinates;
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  w.stmt("I64 row = (I64)$ * $ + $;", backend.block_index_x(), kBlock, backend.thread_index());
  w.stmt("if (row >= rows) return;");
  w.stmt("$ v[$], projected[$];", t, kClasses, kClasses);
  w.stmt("$ sum = ($)0, dot = ($)0;", t, t, t);
  w.stmt("for (int p = 0; p < $; ++p) {", kClasses);
  w.stmt("  v[p] = c[row * $ + p];", kClasses);
  w.stmt("  projected[p] = ($)0;", t);
  w.stmt("  sum += v[p];");
  w.stmt("}");
  w.line("  // no chroma, no coordinates: the forward is 0 there, whatever the classes do");
  w.if_block("sum <= 0", [&] {
    w.stmt("for (int p = 0; p < $; ++p) gc[row * $ + p] = ($)0;", kClasses, kClasses, t);
    w.stmt("return;");
  });
  w.stmt("for (int d = 0; d < $; ++d) {", kCoordinates);
  w.stmt("  $ g = gy[row * $ + d], value = ($)0;", t, kCoordinates, t);
  w.stmt("  for (int p = 0; p < $; ++p) {", kClasses);
  w.stmt("    $ b = kevra_tonnetz_basis(d, p);", t);
  w.stmt("    value += b * v[p];");
  w.stmt("    projected[p] += g * b;");
  w.stmt("  }");
  w.stmt("  dot += g * value / sum;");
  w.stmt("}");
  w.stmt("for (int p = 0; p < $; ++p) gc[row * $ + p] = (projected[p] - dot) / sum;", kClasses,
         kClasses);
  return i64_prelude(backend) + tonnetz_basis_function(backend, t) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "c")
             .add_const_pointer(t, "gy")
             .add_pointer(t, "gc")
             .add_scalar("I64", "rows")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
