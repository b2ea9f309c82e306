#include "codegen/kernels/gradient_frames.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/chain_rule.h"
#include "codegen/kernels/overlap.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

KernelSignature& add_strides(KernelSignature& signature) {
  return signature.add_scalar("int", "NF")
      .add_scalar("I64", "sb")
      .add_scalar("I64", "sk")
      .add_scalar("I64", "st")
      .add_scalar("I64", "row0");
}

// Point k of row `row`, and the batch row and the frame that it belongs to.
void emit_point_map(KernelWriter& w, int n_fft) {
  flat_row_index(w, "k", std::to_string(n_fft));
  w.stmt("row += row0;");
  split_row(w, "bb", "tt");
}

// The frames that cover place `place` of the padded signal, added in their order.
void emit_frame_sum(KernelWriter& w, const GradientCrop& kernel, const char* place) {
  w.stmt("{ I64 pp = $;", place);
  emit_covering_frames(w, "pp", kernel.n_fft, kernel.hop);
  w.stmt("  for (int t=t0; t<=t1; ++t)");
  w.stmt("    acc += graw[((I64)batch*NF + t)*$ + (pp - (I64)t*$)];", kernel.n_fft, kernel.hop);
  w.stmt("}");
}

}  // namespace

std::string GradientPack::key() const {
  return format("cgadjpack_$_$", {std::to_string(n_fft), std::to_string(prec)});
}

std::string GradientPack::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  emit_point_map(w, n_fft);
  w.stmt("cplx v = cmk(0, 0);");
  w.stmt("if (k < $) { cplx g = gX[bb * sb + (I64)k * sk + tt * st]; v = cmk(g.x, -g.y); }",
         n_fft / 2 + 1);
  w.stmt("z[row * $ + k] = v;", n_fft);
  KernelSignature signature(kName, backend);
  signature.add_const_pointer("cplx", "gX").add_pointer("cplx", "z");
  return complex_prelude(backend, prec) +
         add_strides(signature).set_launch_bounds(kBlock, 0).head() + w.str() + "}\n";
}

std::string GradientChain::key() const {
  return format("cgchain_$_$_m$",
                {std::to_string(n_fft), std::to_string(prec), std::to_string(form)}) +
         eps_key(form, eps);
}

std::string GradientChain::source(const Backend& backend) const {
  const std::string t = backend.scalar_type(prec);
  const int bins = n_fft / 2 + 1;
  KernelWriter w(prec, backend);
  emit_point_map(w, n_fft);
  w.stmt("cplx v = cmk(0, 0);");
  w.if_block(format("k < $", {std::to_string(bins)}), [&] {
    w.stmt("cplx Xk = X[row * $ + k];", bins);
    w.stmt("$ g = gS[bb * sb + (I64)k * sk + tt * st];", t);
    emit_chain_rule(w, form, eps, "Xk", "g");
    w.stmt("v = cmk(c * Xk.x, -(c * Xk.y));");
  });
  w.stmt("z[row * $ + k] = v;", n_fft);
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(t, "gS").add_const_pointer("cplx", "X").add_pointer("cplx", "z");
  return complex_prelude(backend, prec) + eps_define(form, eps) +
         add_strides(signature).set_launch_bounds(kBlock, 0).head() + w.str() + "}\n";
}

std::string GradientWindow::key() const {
  return format("cgwreal_$_$", {std::to_string(n_fft), std::to_string(prec)});
}

std::string GradientWindow::source(const Backend& backend) const {
  const std::string t = backend.scalar_type(prec);
  KernelWriter w(prec, backend);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("int t = $;", backend.block_index_x());
  w.stmt("I64 bb = $;", backend.block_index_y());
  w.stmt("const DEV cplx* fb = F + (bb * NF + t) * $;", n_fft);
  w.stmt("DEV $* ob = frames + (bb * NF + t) * $;", t, n_fft);
  w.for_loop("j", "tid", std::to_string(n_fft), std::to_string(kBlock),
             [&](const std::string& j) { w.stmt("ob[$] = fb[$].x * win[$];", j, j, j); });
  return complex_prelude(backend, prec) +
         KernelSignature(kName, backend)
             .add_const_pointer("cplx", "F")
             .add_pointer(t, "frames")
             .add_const_pointer(t, "win")
             .add_scalar("int", "NF")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

std::string GradientCrop::key() const {
  if (!slots) return "adj_crop_" + std::to_string(prec);
  return format("cgcrop_$_$_$", {std::to_string(n_fft), std::to_string(hop), std::to_string(prec)});
}

std::string GradientCrop::source(const Backend& backend) const {
  const std::string t = backend.scalar_type(prec);
  KernelWriter w(prec, backend);
  w.stmt("I64 j = (I64)$ * $ + $;", backend.block_index_x(), kBlock, backend.thread_index());
  w.stmt("int batch = $;", backend.block_index_y());
  w.stmt("if (j >= L) return;");
  w.stmt("$ acc = ($)0;", t, t);
  w.line("  // the sample itself, its mirror at the start, its mirror at the end");
  if (slots) {
    emit_frame_sum(w, *this, "PAD + j");
    w.if_block("j >= 1 && j <= PAD", [&] { emit_frame_sum(w, *this, "PAD - j"); });
    w.stmt("I64 rp = (I64)2*L - 2 + PAD - j;");
    w.if_block("rp >= PAD + L && rp < out_len", [&] { emit_frame_sum(w, *this, "rp"); });
  } else {
    w.stmt("I64 base = (I64)batch*out_len;");
    w.stmt("acc = (I64)PAD + j < out_len ? graw[base + PAD + j] : ($)0;", t);
    w.stmt("if (j >= 1 && j <= PAD) acc += graw[base + PAD - j];");
    w.stmt("I64 rp = (I64)2*L - 2 + PAD - j;");
    w.stmt("if (rp >= PAD + L && rp < out_len) acc += graw[base + rp];");
  }
  w.stmt("gx[(I64)batch*L + j] = acc;");
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "graw")
             .add_pointer(t, "gx")
             .add_scalar("int", "L")
             .add_scalar("int", "PAD")
             .add_scalar("int", "NF")
             .add_scalar("I64", "out_len")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
