#include "codegen/kernels/cepstra_adjoint.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/prelude.h"

namespace kevra::codegen {

std::string CepstraFirstPeak::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  const std::string red = backend.shared_pointer_type(t);
  const std::string places = backend.shared_pointer_type("I64");
  // The places first: eight bytes each, whatever T is.
  w.stmt("$ ridx = ($)smem;", places, places);
  w.stmt("$ red = ($)(smem + $ * sizeof(I64));", red, red, kBlock);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("I64 base = (I64)$ * n;", backend.block_index_x());
  w.stmt("$ m = $;", t, prec == kDouble ? "-1e300" : "-1e30f");
  w.stmt("I64 mi = 0;");
  w.stmt("for (I64 i = tid; i < n; i += $) {", kBlock);
  w.stmt("  $ v = M[base + i];", t);
  w.stmt("  if (v > m) { m = v; mi = i; }");
  w.stmt("}");
  w.stmt("red[tid] = m; ridx[tid] = mi;");
  w.barrier();
  w.line("  // of equal maxima the first, whichever thread met it");
  w.stmt("for (int s = $; s > 0; s >>= 1) {", kBlock / 2);
  w.stmt("  if (tid < s) {");
  w.stmt("    $ v = red[tid + s];", t);
  w.stmt("    I64 vi = ridx[tid + s];");
  w.stmt("    if (v > red[tid] || (v == red[tid] && vi < ridx[tid])) {");
  w.stmt("      red[tid] = v; ridx[tid] = vi;");
  w.stmt("    }");
  w.stmt("  }");
  w.barrier();
  w.stmt("}");
  w.stmt("if (tid == 0) { peak[$] = red[0]; idx[$] = ridx[0]; }", backend.block_index_x(),
         backend.block_index_x());
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "M")
             .add_pointer(t, "peak")
             .add_pointer("I64", "idx")
             .add_scalar("I64", "n")
             .set_shared("char", "smem")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

std::string CepstraGradient::key() const {
  return format("cepadj_$_$_$",
                {std::to_string(prec), std::to_string(n_mels), std::to_string(n_out)});
}

std::string CepstraGradient::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  emit_product_place(w);
  w.line("  // coefficients of a frame stand nf apart");
  w.stmt("I64 c0 = f / nf * NIN * nf + f % nf;");
  emit_weighted_sum(w, t, "NIN", "D[(i+$)*NOUT+k]", "gc[c0+(i+$)*nf]");
  w.stmt("gM[g] = acc;");
  return i64_prelude(backend) + product_defines(n_out, n_mels) +
         KernelSignature(kName, backend)
             .add_pointer(t, "gM")
             .add_const_pointer(t, "gc")
             .add_const_pointer(t, "D")
             .add_scalar("I64", "nt")
             .add_scalar("I64", "nf")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

std::string CepstraFloorSum::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  const std::string red = backend.shared_pointer_type(t);
  w.stmt("$ red = ($)smem;", red, red);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("I64 base = (I64)$ * n;", backend.block_index_x());
  w.stmt("$ lo = peak[$] - topdb;", t, backend.block_index_x());
  w.stmt("$ s = ($)0;", t, t);
  w.stmt("for (I64 i = base + tid; i < base + n; i += $) {", kBlock);
  w.stmt("  if (M[i] < lo) { s += gM[i]; gM[i] = ($)0; }", t);
  w.stmt("}");
  w.stmt("red[tid] = s;");
  w.barrier();
  w.stmt("for (int h = $; h > 0; h >>= 1) {", kBlock / 2);
  w.stmt("  if (tid < h) red[tid] += red[tid + h];");
  w.barrier();
  w.stmt("}");
  w.stmt("if (tid == 0) gM[base + idx[$]] += red[0];", backend.block_index_x());
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "M")
             .add_pointer(t, "gM")
             .add_const_pointer(t, "peak")
             .add_const_pointer("I64", "idx")
             .add_scalar("I64", "n")
             .add_scalar(t, "topdb")
             .set_shared("char", "smem")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
