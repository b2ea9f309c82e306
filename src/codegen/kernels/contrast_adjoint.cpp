#include "codegen/kernels/contrast_adjoint.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

// Bins in front of the first band and behind the last one belong to nobody.
void emit_outside(KernelWriter& w, const std::string& t) {
  const int block = ContrastAdjointKernel::kBlock;
  w.stmt("if (band == 0)");
  w.stmt("  for (int i = tid; i < bt[0]; i += $) gM[base + i] = ($)0;", block, t);
  w.stmt("if (band == nbands - 1)");
  w.stmt("  for (I64 i = bt[nbands] + tid; i < n; i += $) gM[base + i] = ($)0;", block, t);
}

// gp, gv: what the means pv and vv are passed back, of the arithmetic `t`.
void emit_mean_gradients(KernelWriter& w, const std::string& t) {
  w.stmt("$ g = ($)gy[(I64)$ * nbands + band];", t, t, w.backend.block_index_x());
  w.stmt("$ gp = g, gv = -g;", t);
  w.if_block("!linear", [&] {
    w.line("  // 10 / ln 10; below amin the forward holds the mean still, and 0 has no level");
    w.stmt("gp = pv < ($)amin || pv <= 0 ? ($)0 : ($)4.342944819032518 * g / pv;", t, t, t);
    w.stmt("gv = vv < ($)amin || vv <= 0 ? ($)0 : -($)4.342944819032518 * g / vv;", t, t, t);
  });
}

void emit_load(KernelWriter& w, const std::string& t) {
  w.line("  // what fills up sorts to the end, whatever the band holds: its place says so");
  w.stmt("for (int i = tid; i < pad; i += $) {", ContrastAdjointKernel::kBlock);
  w.stmt("vals[i] = i < nin ? M[base + lo + i] : ($)0;", t);
  w.stmt("idx[i] = i;");
  w.stmt("}");
  w.barrier();
}

void emit_sort_kernel(KernelWriter& w, const std::string& t) {
  const int block = ContrastAdjointKernel::kBlock;
  const std::string values = w.backend.shared_pointer_type(t);
  const std::string places = w.backend.shared_pointer_type("int");
  // two at least: the gradients of both means pass through the first two values
  w.stmt("int pad = 2; while (pad < nin) pad <<= 1;");
  w.stmt("$ vals = ($)smem;", values, values);
  w.stmt("$ idx = ($)(smem + (I64)pad * sizeof($));", places, places, t);
  emit_load(w, t);
  w.line("  // equal values by their places, so that every order of threads chooses the same ones");
  emit_bitonic(w, std::to_string(block), [&] {
    w.stmt("$ a = vals[i], c = vals[ix];", t);
    w.stmt("int ia = idx[i], ic = idx[ix];");
    w.stmt("bool gtr = (ia < nin) != (ic < nin) ? ia >= nin : a > c || (a == c && ia > ic);");
    w.stmt("if ((i & kk) != 0 ? !gtr : gtr) {");
    w.stmt("  vals[i] = c; vals[ix] = a; idx[i] = ic; idx[ix] = ia;");
    w.stmt("}");
  });
  w.if_block("tid == 0", [&] {
    emit_sorted_means(w);
    emit_mean_gradients(w, t);
    w.stmt("vals[0] = gv / ($)q; vals[1] = gp / ($)q;", t, t);
  });
  w.barrier();
  w.stmt("$ low = vals[0], high = vals[1];", t);
  w.stmt("for (int i = tid; i < nin; i += $)", block);
  w.stmt("  gM[base + lo + idx[i]] = (i < q ? low : ($)0) + (i >= nin - q ? high : ($)0);", t, t);
}

void emit_histogram_kernel(KernelWriter& w, const std::string& t) {
  const int block = ContrastAdjointKernel::kBlock;
  emit_histogram_memory(w);
  emit_range(w);
  w.line("  // Of equal values peak and valley are the same mean, and their parts cancel out. The");
  w.line("  // whole block leaves, or no thread of it.");
  w.if_block("rng <= 0.0f", [&] {
    w.stmt("for (int i = tid; i < nin; i += $) gM[base + lo + i] = ($)0;", block, t);
    w.stmt("return;");
  });
  emit_thresholds(w, true);
  emit_sums_below(w);
  emit_histogram_means(w, "float");
  emit_mean_gradients(w, "float");
  w.line(
      "  // what the elements below a threshold leave of the q is shared by those that stand at "
      "it");
  w.stmt("float share0 = (q - cnt0) * gv / ((float)q * tie0);");
  w.stmt("float share1 = (q - cnt1) * gp / ((float)q * tie1);");
  each_of_band(w, [&] {
    w.stmt("int k0 = level(v - mn, rng), k1 = level(mx - v, rng);");
    w.stmt("float sum = k0 < thr0 ? gv / q : (k0 == thr0 ? share0 : 0.0f);");
    w.stmt("sum += k1 < thr1 ? gp / q : (k1 == thr1 ? share1 : 0.0f);");
    w.stmt("gM[base + lo + i] = ($)sum;", t);
  });
}

}  // namespace

ContrastAdjointKernel ContrastAdjointKernel::chosen(int prec, int64_t band_pad, int64_t limit) {
  const ContrastAdjointKernel sort{prec, false};
  return sort.shared_bytes(band_pad) <= limit ? sort : ContrastAdjointKernel{prec, true};
}

std::string ContrastAdjointKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("int band = $;", backend.block_index_y());
  w.stmt("I64 base = (I64)$ * n;", backend.block_index_x());
  emit_band(w);
  emit_outside(w, t);
  histogram ? emit_histogram_kernel(w, t) : emit_sort_kernel(w, t);
  return i64_prelude(backend) + (histogram ? level_function(backend) : "") +
         KernelSignature(name(), backend)
             .add_const_pointer(t, "M")
             .add_const_pointer(t, "gy")
             .add_pointer(t, "gM")
             .add_const_pointer("int", "bt")
             .add_const_pointer("int", "bq")
             .add_scalar("I64", "n")
             .add_scalar("int", "nbands")
             .add_scalar(t, "amin")
             .add_scalar("int", "linear")
             .set_shared("char", "smem")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
