#include "codegen/kernels/db.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/block_maximum.h"
#include "codegen/prelude.h"

namespace kevra::codegen {

std::string DbKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  const std::string red = backend.shared_pointer_type(t);
  w.stmt("$ red = ($)smem;", red, red);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("I64 base = (I64)$ * n;", backend.block_index_x());
  w.stmt("$ inv10 = ($)0.43429448190325176;  // log10(v) = ln(v) / ln(10)", t, t);
  w.stmt("$ pk = -$;", t, prec == kDouble ? "(double)1e308" : "3.0e38f");
  w.stmt("for (I64 i = tid; i < n; i += $) {", kBlock);
  w.stmt("  $ v = ($)S[base + i]; if (v < amin) v = amin;", t, t);
  w.stmt("  $ d = mul * $ * inv10 - cref;", t, w.log_of("v"));
  w.stmt("  out[base + i] = d;");
  w.stmt("  if (d > pk) pk = d;");
  w.stmt("}");
  w.line("  // the same for all threads: no barrier is left half met");
  w.stmt("if (hastop == 0) return;");
  emit_block_maximum(w, "pk", kBlock);
  w.stmt("$ lo = red[0] - topdb;", t);
  w.line("  // each thread meets the values again that it has stored");
  w.stmt("for (I64 i = tid; i < n; i += $)", kBlock);
  w.stmt("  if (out[base + i] < lo) out[base + i] = lo;");
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "S")
             .add_pointer(t, "out")
             .add_scalar("I64", "n")
             .add_scalar(t, "mul")
             .add_scalar(t, "amin")
             .add_scalar(t, "cref")
             .add_scalar(t, "topdb")
             .add_scalar("int", "hastop")
             .set_shared("char", "smem")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

std::string DbInverseKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  w.stmt("I64 i = (I64)$ * $ + $;", backend.block_index_x(), kBlock, backend.thread_index());
  w.stmt("if (i < total)");
  w.stmt("  out[i] = ref * $;", w.exp_of(format("(($)D[i] / mul) * ($)2.302585092994046", {t, t})));
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "D")
             .add_pointer(t, "out")
             .add_scalar("I64", "total")
             .add_scalar(t, "mul")
             .add_scalar(t, "ref")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
