#include "codegen/kernels/cqt_adjoint.h"

#include <numbers>

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/chain_rule.h"
#include "codegen/kernels/cqt.h"
#include "codegen/kernels/cqt_bins.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

constexpr int kBlock = 256;

std::string key_with(const char* prefix, int compute) {
  return prefix + std::to_string(compute);
}

std::string finished(KernelSignature& signature, const KernelWriter& body) {
  signature.set_launch_bounds(kBlock, -1);
  return complex_prelude(body.backend, body.prec) + signature.head() + body.str() + "}\n";
}

// s: dE/dC = s C for the real form of a bin C = re + i im with the gradient gv.
void emit_bin_factor(KernelWriter& w, const CqtBinGradientKernel& kernel) {
  const std::string t = w.backend.scalar_type(w.prec);
  if (kernel.form == kPowerForm) return w.stmt("s = ($)2 * gv;", t);
  w.stmt("$ p = re * re + im * im;", t);
  if (kernel.form == kMagnitudeForm) {
    w.stmt("$ y = $;", t, w.sqrt_of("p"));
    w.stmt("if (y > ($)0) s = gv / y;", t);
    return;
  }
  constexpr double kDecibelsPerNeper = 20 / std::numbers::ln10;
  w.stmt("s = $;", over_eps(w, kernel.eps, kDecibelsPerNeper, "gv", "p", "eps"));
}

// acc: the odd taps that meet sample i of gin, which is odd too. The first of them, tap 63, meets
// sample m of gb.
void emit_odd_taps(KernelWriter& w, const std::string& t) {
  constexpr int kLast = HalfBandKernel::kTaps - 2;
  constexpr int kOdd = HalfBandKernel::kTaps / 2;
  constexpr int kReach = kLast - HalfBandKernel::kTaps / 2;  // of the odd taps, to either side
  // As in the decimator: four sums do not wait for each other.
  constexpr int kSums = 4;
  w.stmt("I64 m = (i - $) / 2;", kReach);
  w.line("  // blocks away from the row's ends have nothing to check");
  w.stmt("if (first >= $ && first + $ < 2 * on) {", kReach, kBlock - 1 + kReach);
  for (int s = 0; s < kSums; ++s) w.stmt("  $ acc$ = ($)0;", t, s, t);
  w.stmt("  for (int u = 0; u < $; u += $) {", kOdd, kSums);
  for (int s = 0; s < kSums; ++s) {
    w.stmt("    acc$ += taps[$ - 2 * u] * gb[m + u + $];", s, kLast - 2 * s, s);
  }
  w.stmt("  }");
  w.stmt("  acc = (acc0 + acc1) + (acc2 + acc3);");
  w.stmt("} else {");
  w.stmt("  for (int u = 0; u < $; ++u)", kOdd);
  w.stmt("    if (m + u >= 0 && m + u < on) acc += taps[$ - 2 * u] * gb[m + u];", kLast);
  w.stmt("}");
}

}  // namespace

std::string CqtBinGradientKernel::key() const {
  return format("cqt_gc_$_$", {std::to_string(compute), std::to_string(form)}) + eps_key(form, eps);
}
std::string CqtBinGradientKernel::source(const Backend& backend) const {
  KernelWriter w(compute, backend);
  const std::string t = backend.scalar_type(compute);
  flat_row_index(w, "q", "(I64)rows * nf", "batch");
  w.stmt("I64 k = q / nf, t = q % nf;");
  w.stmt("I64 gi = (batch * n_bins + row_lo + k) * nf + t;");
  w.stmt("I64 ci = (batch * rows + k) * nf + t;");
  if (form == kComplexForm) {
    w.stmt("gc[ci] = g[gi];");
  } else {
    w.stmt("const DEV cplx* Sf = S + (batch * nfl + t) * nb;");
    emit_bin_product(w, "Sf", "nb");
    w.stmt("$ gv = g[gi], s = ($)0;", t, t);
    emit_bin_factor(w, *this);
    w.stmt("gc[ci] = cmk(s * re, s * im);");
  }
  KernelSignature signature(kName, backend);
  signature.add_const_pointer("cplx", "S")
      .add_pointer("cplx", "gc")
      .add_const_pointer(form == kComplexForm ? "cplx" : t, "g")
      .add_const_pointer(t, "br")
      .add_const_pointer(t, "bi")
      .add_scalar("I64", "nfl")
      .add_scalar("int", "nb")
      .add_scalar("int", "rows")
      .add_scalar("I64", "nf")
      .add_scalar("int", "n_bins")
      .add_scalar("int", "row_lo")
      .add_scalar(t, "eps")
      .add_const_pointer("int", "blo")
      .add_const_pointer("int", "bhi");
  return finished(signature, w);
}

std::string CqtSpectrumGradientKernel::key() const {
  return key_with("cqt_radj_", compute);
}
std::string CqtSpectrumGradientKernel::source(const Backend& backend) const {
  KernelWriter w(compute, backend);
  const std::string t = backend.scalar_type(compute);
  flat_row_index(w, "q", "nf * nb", "batch");
  w.stmt("I64 t = q / nb, i = q % nb;");
  w.stmt("$ ar = ($)0, ai = ($)0;", t, t, t);
  w.line("  // a column of zeros has its last row before its first");
  w.stmt("for (int k = klo[i]; k <= khi[i]; ++k) {");
  w.stmt("  $ wr = br[(I64)k * nb + i], wi = bi[(I64)k * nb + i];", t);
  w.stmt("  cplx c = gc[(batch * rows + k) * nf + t];");
  w.stmt("  ar += wr * c.x + wi * c.y;");
  w.stmt("  ai += wr * c.y - wi * c.x;");
  w.stmt("}");
  w.stmt("gS[(batch * nfl + t) * nb + i] = cmk(ar, ai);");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer("cplx", "gc")
      .add_pointer("cplx", "gS")
      .add_const_pointer(t, "br")
      .add_const_pointer(t, "bi")
      .add_scalar("I64", "nfl")
      .add_scalar("int", "nb")
      .add_scalar("int", "rows")
      .add_scalar("I64", "nf")
      .add_const_pointer("int", "klo")
      .add_const_pointer("int", "khi");
  return finished(signature, w);
}

std::string HalfBandAdjointKernel::key() const {
  return key_with("cqt_hbadj_", compute);
}
std::string HalfBandAdjointKernel::source(const Backend& backend) const {
  KernelWriter w(compute, backend);
  const std::string t = backend.scalar_type(compute);
  // Odd samples have 32 taps, even ones one: each kind has half a block's threads, so that no wave
  // waits for the other kind.
  w.stmt("I64 first = (I64)$ * $;", backend.block_index_x(), kBlock);
  w.stmt("int tid = (int)$;", backend.thread_index());
  w.stmt("I64 i = first + 2 * (tid & $) + (tid < $ ? 1 : 0);", kBlock / 2 - 1, kBlock / 2);
  w.stmt("if (i >= n) return;");
  w.stmt("I64 row = $;", backend.block_index_y());
  w.stmt("const DEV $* gb = gout + row * on;", t);
  w.stmt("$ acc = ($)0;", t, t);
  w.if_block("i & 1", [&] { emit_odd_taps(w, t); });
  w.stmt("else acc = taps[$] * gb[i >> 1];", HalfBandKernel::kTaps / 2);
  w.stmt("gin[row * n + i] = acc;");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(t, "gout")
      .add_pointer(t, "gin")
      .add_const_pointer(t, "taps")
      .add_scalar("I64", "n")
      .add_scalar("I64", "on");
  return finished(signature, w);
}

std::string CqtAddLevelKernel::key() const {
  return key_with("cqt_addsl_", compute);
}
std::string CqtAddLevelKernel::source(const Backend& backend) const {
  KernelWriter w(compute, backend);
  const std::string t = backend.scalar_type(compute);
  flat_row_index(w, "j", "n");
  w.stmt("glev[row * n + j] += gx[row * plen + pad + j];");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(t, "gx")
      .add_pointer(t, "glev")
      .add_scalar("I64", "plen")
      .add_scalar("int", "pad")
      .add_scalar("I64", "n");
  return finished(signature, w);
}

}  // namespace kevra::codegen
