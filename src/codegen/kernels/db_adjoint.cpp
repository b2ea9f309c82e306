#include "codegen/kernels/db_adjoint.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/block_maximum.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

// top, peak: the value of the item's largest level, and the level. The value is found by comparing
// values: a logarithm may come out differently in one loop and the next, values do not.
void emit_peak(KernelWriter& w, const std::string& t) {
  const char* huge = w.prec == kDouble ? "(double)1e308" : "3.0e38f";
  w.line("  // a negative mul turns the order round");
  w.stmt("$ best = -$;", t, huge);
  w.stmt("for (I64 i = tid; i < n; i += $) {", DbAdjointKernel::kBlock);
  w.stmt("  $ v = S[base + i]; if (v < amin) v = amin;", t);
  w.stmt("  $ rank = mul < 0 ? -v : v;", t);
  w.stmt("  if (rank > best) best = rank;");
  w.stmt("}");
  emit_block_maximum(w, "best", DbAdjointKernel::kBlock);
  w.stmt("$ top = mul < 0 ? -red[0] : red[0];", t);
  w.stmt("$ peak = mul * $ * inv10, lo = peak - topdb;", t, w.log_of("top"));
  w.line("  // every thread has read the maximum before the sums write over it");
  w.barrier();
}

// s, v, u: a value, what the forward makes of it, and its level; by all threads of the item.
void each_level(KernelWriter& w, const std::string& t, const std::function<void()>& body) {
  w.stmt("for (I64 i = tid; i < n; i += $) {", DbAdjointKernel::kBlock);
  w.stmt("$ s = S[base + i];", t);
  w.stmt("$ v = s < amin ? amin : s;", t);
  w.stmt("$ u = v == top ? peak : mul * $ * inv10;", t, w.log_of("v"));
  body();
  w.stmt("}");
}

// share: what the floor's values pass on, for each of those at the peak.
void emit_share(KernelWriter& w, const std::string& t) {
  w.stmt("$ routed = ($)0, nmax = ($)0;", t, t, t);
  each_level(w, t, [&] {
    w.stmt("if (v == top) nmax += ($)1;", t);
    w.stmt("if (u < lo) routed += g[base + i];");
    w.stmt("else if (u == lo) routed += ($)0.5 * g[base + i];", t);
  });
  w.stmt("red[tid] = routed; red1[tid] = nmax;");
  w.barrier();
  w.stmt("for (int s = $; s > 0; s >>= 1) {", DbAdjointKernel::kBlock / 2);
  w.stmt("  if (tid < s) { red[tid] += red[tid + s]; red1[tid] += red1[tid + s]; }");
  w.barrier();
  w.stmt("}");
  w.stmt("$ share = red[0] / red1[0];", t);
}

}  // namespace

std::string DbAdjointKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  const std::string shared = backend.shared_pointer_type(t);
  w.stmt("$ red = ($)smem;", shared, shared);
  w.stmt("$ red1 = red + $;", shared, kBlock);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("I64 base = (I64)$ * n;", backend.block_index_x());
  w.stmt("$ inv10 = ($)0.43429448190325176;  // 1 / ln 10", t, t);
  w.line("  // the same for all threads: no barrier is left half met");
  w.if_block("hastop == 0", [&] {
    w.stmt("for (I64 i = tid; i < n; i += $) {", kBlock);
    w.stmt("  $ s = S[base + i];", t);
    w.stmt("  gS[base + i] = s < amin || s == 0 ? ($)0 : g[base + i] * mul * inv10 / s;", t);
    w.stmt("}");
    w.stmt("return;");
  });
  emit_peak(w, t);
  emit_share(w, t);
  each_level(w, t, [&] {
    w.stmt("$ kept = u > lo ? ($)1 : (u == lo ? ($)0.5 : ($)0);", t, t, t, t);
    w.stmt("$ gd = g[base + i] * kept + (v == top ? share : ($)0);", t, t);
    w.stmt("gS[base + i] = s < amin || s == 0 ? ($)0 : gd * mul * inv10 / v;", t);
  });
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "S")
             .add_const_pointer(t, "g")
             .add_pointer(t, "gS")
             .add_scalar("I64", "n")
             .add_scalar(t, "mul")
             .add_scalar(t, "amin")
             .add_scalar(t, "topdb")
             .add_scalar("int", "hastop")
             .set_shared("char", "smem")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
