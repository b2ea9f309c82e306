#include "codegen/kernels/griffinlim.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

void begin_value(KernelWriter& w, int block) {
  w.stmt("I64 i = (I64)$ * $ + $;", w.backend.block_index_x(), block, w.backend.thread_index());
  w.stmt("if (i < total) {");
}

std::string finished(KernelSignature& signature, const KernelWriter& body, int block) {
  signature.add_scalar("I64", "total").set_launch_bounds(block, -1);
  return i64_prelude(body.backend) + signature.head() + body.str() + "}\n";
}

}  // namespace

std::string GriffinLimMultiply::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  begin_value(w, kBlock);
  w.stmt("  Zc[2 * i] = S[i] * ang[2 * i];");
  w.stmt("  Zc[2 * i + 1] = S[i] * ang[2 * i + 1];");
  w.stmt("}");
  const std::string t = backend.scalar_type(prec);
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(t, "S").add_const_pointer(t, "ang").add_pointer(t, "Zc");
  return finished(signature, w, kBlock);
}

std::string GriffinLimStep::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  begin_value(w, kBlock);
  w.stmt("  $ zr = Z[2 * i], zi = Z[2 * i + 1];", t);
  w.stmt("  $ ur = zr - alpha * prev[2 * i], ui = zi - alpha * prev[2 * i + 1];", t);
  w.stmt("  $ m = $ + tiny;", t, w.sqrt_of("ur * ur + ui * ui"));
  w.stmt("  ang[2 * i] = ur / m; ang[2 * i + 1] = ui / m;");
  w.stmt("  prev[2 * i] = zr; prev[2 * i + 1] = zi;");
  w.stmt("}");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(t, "Z")
      .add_pointer(t, "prev")
      .add_pointer(t, "ang")
      .add_scalar(t, "alpha")
      .add_scalar(t, "tiny");
  return finished(signature, w, kBlock);
}

}  // namespace kevra::codegen
