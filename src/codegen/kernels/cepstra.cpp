#include "codegen/kernels/cepstra.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/block_maximum.h"
#include "codegen/prelude.h"

namespace kevra::codegen {

std::string CepstraPeakKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  const std::string red = backend.shared_pointer_type(t);
  w.stmt("$ red = ($)smem;", red, red);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("I64 base = (I64)$ * n;", backend.block_index_x());
  w.stmt("$ m = $;", t, prec == kDouble ? "-1e300" : "-1e30f");
  // A block has a long row for itself: whole cache lines, and loads that do not wait for each
  // other.
  constexpr int kRun = 8;
  w.stmt("I64 whole = n - n % $;", kRun);
  w.stmt("for (I64 i = $ * tid; i < whole; i += $)", kRun, kRun * kBlock);
  w.stmt("  for (int j = 0; j < $; ++j) { $ v = M[base + i + j]; if (v > m) m = v; }", kRun, t);
  w.stmt("if (whole + tid < n) { $ v = M[base + whole + tid]; if (v > m) m = v; }", t);
  emit_block_maximum(w, "m", kBlock);
  w.stmt("if (tid == 0) peak[$] = red[0];", backend.block_index_x());
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "M")
             .add_pointer(t, "peak")
             .add_scalar("I64", "n")
             .set_shared("char", "smem")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

std::string CepstraKernel::key() const {
  return format("cepstra_$_$_$$", {std::to_string(prec), std::to_string(n_mels),
                                   std::to_string(n_out), floored ? "_floored" : ""});
}

std::string CepstraKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  emit_product_place(w);
  if (floored) w.stmt("$ lo = peak[f / nf] - topdb;", t);
  emit_product_sum(w, "D", floored ? "raised(M[$], lo)" : "M[$]");
  w.stmt("out[g] = acc;");
  const std::string raised =
      format("$$ raised($ v, $ lo){return v < lo ? lo : v;}\n", {backend.device_inline(), t, t, t});
  return i64_prelude(backend) + product_defines(n_mels, n_out) + (floored ? raised : "") +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "M")
             .add_const_pointer(t, "D")
             .add_pointer(t, "out")
             .add_const_pointer(t, "peak")
             .add_scalar("I64", "nt")
             .add_scalar("I64", "nf")
             .add_scalar(t, "topdb")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
