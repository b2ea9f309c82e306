#include "codegen/kernels/istft_adjoint.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/overlap.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

std::string numbered(const char* prefix, int n_fft, int prec) {
  return format("$_$_$", {prefix, std::to_string(n_fft), std::to_string(prec)});
}

// The window's value times the inverse transform's 1 / n_fft.
std::string scaled_window(const KernelWriter& w, int n_fft, const std::string& i) {
  return format("win[$] * ($)$", {i, w.backend.scalar_type(w.prec), number_literal(1.0 / n_fft)});
}

// Stores the gradient of bin k at `target`, from the transform's value named `c`.
void emit_bin_gradient(KernelWriter& w, int n_fft, const std::string& k,
                       const std::string& target) {
  const std::string t = w.backend.scalar_type(w.prec);
  if (n_fft % 2 == 0) {
    w.stmt("int edge = ($ == 0) || ($ == $);", k, k, n_fft / 2);
  } else {
    w.stmt("int edge = ($ == 0);", k);
  }
  w.stmt("$ = edge ? cmk(c.x, ($)0) : cmk(($)2*c.x, ($)2*c.y);", target, t, t, t);
}

}  // namespace

std::string IstftGradientPre::key() const {
  return format("ciapre_$_$_$", {std::to_string(n_fft), std::to_string(hop), std::to_string(prec)});
}

std::string IstftGradientPre::source(const Backend& backend) const {
  const std::string t = backend.scalar_type(prec);
  KernelWriter w(prec, backend);
  w.stmt("I64 p = (I64)$ * $ + $;", backend.block_index_x(), kBlock, backend.thread_index());
  w.stmt("int batch = $;", backend.block_index_y());
  w.stmt("if (p >= out_len) return;");
  w.stmt("I64 i = p - pad;");
  w.stmt("if (i < 0 || i >= L) { g[(I64)batch*out_len + p] = ($)0; return; }", t);
  emit_covering_frames(w, "p", n_fft, hop);
  w.stmt("$ env=($)0;", t, t);
  w.stmt("for (int t=t0; t<=t1; ++t) {");
  w.stmt("  $ w = win[(int)(p - (I64)t*$)]; env += w*w;", t, hop);
  w.stmt("}");
  w.stmt("$ gv = gy[(I64)batch*L + i];", t);
  w.stmt("g[(I64)batch*out_len + p] = (env > ($)1e-8) ? gv/env : ($)0;", t, t);
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "gy")
             .add_pointer(t, "g")
             .add_const_pointer(t, "win")
             .add_scalar("int", "L")
             .add_scalar("int", "pad")
             .add_scalar("int", "NF")
             .add_scalar("I64", "out_len")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

std::string IstftAdjointKernel::source(const Backend& backend) const {
  const std::string t = backend.scalar_type(frame.prec);
  KernelWriter w(frame.prec, backend);
  emit_adjoint_map(w, frame);
  w.stmt("I64 ib = (I64)batch*out_len + (I64)frame*HOP;");
  w.stmt("I64 ob = ((I64)batch*NF + frame) * NB;");
  emit_frame_bins(
      w, frame,
      [&](const std::string& i) {
        return format("g[ib + $] * $", {i, scaled_window(w, frame.n_fft, i)});
      },
      [&](const std::string& k, const std::string& v) {
        w.stmt("cplx c = $;", v);
        emit_bin_gradient(w, frame.n_fft, k, "gZ[ob + " + k + "]");
      });
  return adjoint_prelude(frame, backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "g")
             .add_pointer("cplx", "gZ")
             .add_const_pointer(t, "win")
             .add_const_pointer("cplx", "twg")
             .add_scalar("int", "NF")
             .add_scalar("I64", "out_len")
             .set_launch_bounds(frame.threads(), 0)
             .set_shared("cplx", "sh_all")
             .head() +
         w.str() + "}\n";
}

std::string IstftGradientGather::key() const {
  return numbered("ciagather", n_fft, prec);
}

std::string IstftGradientGather::source(const Backend& backend) const {
  const std::string t = backend.scalar_type(prec);
  KernelWriter w(prec, backend);
  flat_row_index(w, "j", std::to_string(n_fft));
  w.stmt("row += row0;");
  split_row(w, "batch", "frame");
  w.stmt("$ v = gpad[batch * out_len + frame * (I64)HOPv + j] * $;", t,
         scaled_window(w, n_fft, "j"));
  w.stmt("frames[row * $ + j] = v;", n_fft);
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "gpad")
             .add_pointer(t, "frames")
             .add_const_pointer(t, "win")
             .add_scalar("int", "NF")
             .add_scalar("int", "HOPv")
             .add_scalar("I64", "out_len")
             .add_scalar("I64", "row0")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

std::string IstftGradientStore::key() const {
  return numbered("ciastore", n_fft, prec);
}

std::string IstftGradientStore::source(const Backend& backend) const {
  const int bins = n_fft / 2 + 1;
  KernelWriter w(prec, backend);
  flat_row_index(w, "k", std::to_string(bins));
  w.stmt("row += row0;");
  w.stmt("cplx c = spec[row * $ + k];", bins);
  emit_bin_gradient(w, n_fft, "k", format("gZ[row * $ + k]", {std::to_string(bins)}));
  return complex_prelude(backend, prec) +
         KernelSignature(kName, backend)
             .add_const_pointer("cplx", "spec")
             .add_pointer("cplx", "gZ")
             .add_scalar("I64", "row0")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
