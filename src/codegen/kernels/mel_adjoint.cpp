#include "codegen/kernels/mel_adjoint.h"

#include <numbers>

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/chain_rule.h"
#include "codegen/kernels/matrix_product.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/sizes.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

std::string sums_key(const BandRule& rule) {
  return format("_$_$_$", {std::to_string(rule.n_mels), std::to_string(rule.power),
                           std::to_string(rule.form)}) +
         eps_key(rule.form, rule.eps);
}

// NMELS and EPS, and bin_size: what the bank is applied to.
std::string rule_prelude(const BandRule& rule, int prec, const Backend& backend) {
  const std::string defines =
      format("#define NMELS $\n", {std::to_string(rule.n_mels)}) + eps_define(rule.form, rule.eps);
  if (!rule.reads_sums()) return defines;
  const std::string t = backend.scalar_type(prec);
  const KernelWriter w(prec, backend);
  std::string size = "(X.x*X.x + X.y*X.y)";
  if (rule.power == 1) size = w.sqrt_of(prec == kDouble ? size : "(float)" + size);
  return defines + format("$$ bin_size(cplx X){return $;}\n", {backend.device_inline(), t, size});
}

KernelSignature& add_rows(KernelSignature& signature, const std::string& t) {
  return signature.add_const_pointer("int", "fb_lo")
      .add_const_pointer("int", "fb_off")
      .add_const_pointer(t, "fb_w");
}

KernelSignature& add_bin_tables(KernelSignature& signature, const std::string& t) {
  return signature.add_const_pointer("int", "bin_b0")
      .add_const_pointer("int", "bin_b1")
      .add_const_pointer(t, "bin_w0")
      .add_const_pointer(t, "bin_w1");
}

KernelSignature& add_strides(KernelSignature& signature) {
  return signature.add_scalar("I64", "sb").add_scalar("I64", "sk").add_scalar("I64", "st");
}

// Stores to `target` the gradient of band m's sum, `g` being the band's. `bins` is the text of the
// frame's bin, a `$` in it for its number.
void emit_band_coefficient(KernelWriter& w, const BandRule& rule, const std::string& m,
                           const std::string& bins, const std::string& target) {
  const std::string t = w.backend.scalar_type(w.prec);
  if (!rule.reads_sums()) return w.stmt("$ = g;", target);
  w.stmt("int off = fb_off[$], len = fb_off[$+1] - off, lo = fb_lo[$];", m, m, m);
  emit_weighted_sum(w, t, "len", "fb_w[off+i+$]",
                    format("bin_size($)", {format(bins.c_str(), {"lo+i+$"})}));
  if (rule.form == kMagnitudeForm) {
    emit_magnitude_rule(w, "acc", "g");
    return w.stmt("$ = ($)0.5*c;", target, t);
  }
  constexpr double kDecibelsPerNeper = 10 / std::numbers::ln10;
  w.stmt("$ = $;", target, over_eps(w, rule.eps, kDecibelsPerNeper, "g", "acc"));
}

// Names `c`: bin k, `bin` its value, has the gradient c times that value. `coef` is the text of a
// band's coefficient, a `$` in it for its number.
void emit_bin_factor(KernelWriter& w, const BandRule& rule, const std::string& k,
                     const std::string& bin, const std::string& coef) {
  const std::string t = w.backend.scalar_type(w.prec);
  const auto coef_of = [&coef](const char* band) { return format(coef.c_str(), {band}); };
  w.stmt("int b0 = bin_b0[$], b1 = bin_b1[$];", k, k);
  w.stmt("$ gp = ($)0;", t, t);
  w.stmt("if (b0 >= 0) gp += bin_w0[$] * $;", k, coef_of("b0"));
  if (rule.crowded) {
    w.line("  // all rows behind the first that may have the bin");
    w.stmt("for (int r = b0 + 1; r <= b1; ++r) {");
    w.stmt("  int off = fb_off[r], i = (int)$ - fb_lo[r];", k);
    w.stmt("  if (i >= 0 && i < fb_off[r+1] - off) gp += fb_w[off+i] * $;", coef_of("r"));
    w.stmt("}");
  } else {
    w.stmt("if (b1 >= 0) gp += bin_w1[$] * $;", k, coef_of("b1"));
  }
  emit_chain_rule(w, rule.power == 1 ? kMagnitudeForm : kPowerForm, 0, bin, "gp");
}

}  // namespace

bool BandRule::reads_sums() const {
  return form == kMagnitudeForm || form == kDecibelForm;
}

std::string MelAdjointKernel::key() const {
  return frame.key("adj_mel") + sums_key(rule) + (rule.crowded ? "_crowded" : "");
}

size_t MelAdjointKernel::shared_bytes() const {
  return frame.shared_bytes(true) +
         static_cast<size_t>(rule.n_mels) * complex_bytes(frame.prec) / 2;
}

std::string MelAdjointKernel::source(const Backend& backend) const {
  KernelWriter w(frame.prec, backend);
  const std::string t = backend.scalar_type(frame.prec);
  const std::string reals = backend.shared_pointer_type(t);
  emit_adjoint_map(w, frame);
  emit_frame_spectrum(w, frame);
  w.line("  // the gradients of the bands' sums");
  w.stmt("$ coef = ($)(Xs + NB);", reals, reals);
  w.stmt("const DEV $* gb = gM + (I64)batch*sb + (I64)frame*st;", t);
  w.for_loop("m", "tid", "NMELS", "TPF", [&](const std::string& m) {
    w.stmt("$ g = gb[(I64)$*sk];", t, m);
    emit_band_coefficient(w, rule, m, "Xs[$]", "coef[" + m + "]");
  });
  w.barrier();
  w.line("  // from the bands to the bins");
  emit_scaled_bins(w, frame,
                   [&](const std::string& j) { emit_bin_factor(w, rule, j, "X", "coef[$]"); });
  emit_frame_gradient(w, frame);

  KernelSignature signature(kName, backend);
  signature.add_const_pointer(t, "gM")
      .add_const_pointer(t, "y")
      .add_pointer(t, "graw")
      .add_const_pointer(t, "win");
  add_bin_tables(add_rows(signature, t), t)
      .add_const_pointer("cplx", "twg")
      .add_scalar("int", "NF")
      .add_scalar("int", "SIG_LEN")
      .add_scalar("I64", "out_len");
  return adjoint_prelude(frame, backend) + reflect_prelude(frame.pad) +
         rule_prelude(rule, frame.prec, backend) +
         add_strides(signature)
             .set_launch_bounds(frame.threads(), 0)
             .set_shared("cplx", "sh_all")
             .head() +
         w.str() + "}\n";
}

std::string MelGradientSums::key() const {
  return format("cmacoef_$_$", {std::to_string(n_fft), std::to_string(prec)}) + sums_key(rule);
}

std::string MelGradientSums::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  flat_row_index(w, "m", "NMELS");
  w.stmt("row += row0;");
  split_row(w, "batch", "frame");
  w.stmt("$ g = gM[batch * sb + (I64)m * sk + frame * st];", t);
  w.stmt("const DEV cplx* Xb = X + row * $;", n_fft / 2 + 1);
  emit_band_coefficient(w, rule, "m", "Xb[$]", "coef[row*NMELS + m]");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(t, "gM").add_const_pointer("cplx", "X");
  add_rows(signature, t).add_pointer(t, "coef").add_scalar("int", "NF");
  return complex_prelude(backend, prec) + rule_prelude(rule, prec, backend) +
         add_strides(signature).add_scalar("I64", "row0").set_launch_bounds(kBlock, 0).head() +
         w.str() + "}\n";
}

std::string MelGradientPack::key() const {
  return format("cmapack_$_$_$_$$",
                {std::to_string(n_fft), std::to_string(prec), std::to_string(rule.n_mels),
                 std::to_string(rule.power), rule.crowded ? "_crowded" : ""});
}

std::string MelGradientPack::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  const int bins = n_fft / 2 + 1;
  flat_row_index(w, "k", std::to_string(n_fft));
  w.stmt("row += row0;");
  w.stmt("cplx v = cmk(($)0, ($)0);", t, t);
  w.if_block(format("k < $", {std::to_string(bins)}), [&] {
    w.stmt("cplx Xk = X[row*$ + k];", bins);
    emit_bin_factor(w, rule, "k", "Xk",
                    format("coef[row*$ + $]", {std::to_string(rule.n_mels), "$"}));
    w.stmt("v = cmk(c*Xk.x, -(c*Xk.y));");
  });
  w.stmt("bufA[row*$ + k] = v;", n_fft);
  KernelSignature signature(kName, backend);
  signature.add_const_pointer("cplx", "X").add_const_pointer(t, "coef");
  return complex_prelude(backend, prec) +
         add_bin_tables(add_rows(signature, t), t)
             .add_pointer("cplx", "bufA")
             .add_scalar("I64", "row0")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
