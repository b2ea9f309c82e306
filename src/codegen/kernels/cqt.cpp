#include "codegen/kernels/cqt.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/cqt_bins.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

constexpr int kBlock = 256;

std::string two_codes(const char* prefix, int compute, int input) {
  return format("$_$_$", {prefix, std::to_string(compute), std::to_string(input)});
}

std::string preamble(const Backend& backend, int compute, int storage) {
  return backend.source_preamble(storage == kHalf ? kHalf : compute);
}

std::string finished(const std::string& prelude, KernelSignature& signature,
                     const KernelWriter& body) {
  signature.set_launch_bounds(kBlock, -1);
  return prelude + signature.head() + body.str() + "}\n";
}

// acc: the filter around sample 2j of xb. Of a half-band filter every second tap is zero, but for
// the middle one.
void emit_half_band_sum(KernelWriter& w, const std::string& t) {
  constexpr int kMiddle = HalfBandKernel::kTaps / 2;
  constexpr int kReach = kMiddle - 1;  // of the odd taps, to either side
  // One running sum would have every addition wait for the one before. Measured on the CPU device:
  // 4 sums take half the time of one.
  constexpr int kSums = 4;
  w.stmt("$ acc = taps[$] * ($)xb[2 * j];", t, kMiddle, t);
  w.line("  // blocks away from the row's ends have nothing to check");
  w.stmt("I64 first = (I64)$ * $;", w.backend.block_index_x(), 2 * kBlock);
  w.stmt("if (first >= $ && first + $ < n) {", kReach, 2 * (kBlock - 1) + kReach);
  for (int s = 0; s < kSums; ++s) w.stmt("  $ acc$ = ($)0;", t, s, t);
  w.stmt("  for (int t = 1; t < $; t += $) {", HalfBandKernel::kTaps, 2 * kSums);
  for (int s = 0; s < kSums; ++s) {
    w.stmt("    acc$ += taps[t + $] * ($)xb[2 * j + t - $];", s, 2 * s, t, kMiddle - 2 * s);
  }
  w.stmt("  }");
  w.stmt("  acc += (acc0 + acc1) + (acc2 + acc3);");
  w.stmt("} else {");
  w.stmt("  for (int t = 1; t < $; t += 2) {", HalfBandKernel::kTaps);
  w.stmt("    I64 i = 2 * j + t - $;", kMiddle);
  w.stmt("    if (i >= 0 && i < n) acc += taps[t] * ($)xb[i];", t);
  w.stmt("  }");
  w.stmt("}");
}

}  // namespace

std::string HalfBandKernel::key() const {
  return two_codes("cqt_hbdec", compute, input);
}
std::string HalfBandKernel::source(const Backend& backend) const {
  KernelWriter w(compute, backend);
  const std::string t = backend.scalar_type(compute);
  const std::string x = backend.scalar_type(input);
  flat_row_index(w, "j", "on");
  w.stmt("const DEV $* xb = x + row * n;", x);
  emit_half_band_sum(w, t);
  w.stmt("out[row * on + j] = acc;");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(x, "x")
      .add_pointer(t, "out")
      .add_const_pointer(t, "taps")
      .add_scalar("I64", "n")
      .add_scalar("I64", "on");
  return finished(preamble(backend, compute, input) + i64_prelude(backend), signature, w);
}

std::string CqtPadKernel::key() const {
  return two_codes("cqt_pad", compute, input);
}
std::string CqtPadKernel::source(const Backend& backend) const {
  KernelWriter w(compute, backend);
  const std::string t = backend.scalar_type(compute);
  flat_row_index(w, "j", "n");
  w.stmt("out[row * plen + pad + j] = ($)x[row * n + j];", t);
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(backend.scalar_type(input), "x")
      .add_pointer(t, "out")
      .add_scalar("I64", "n")
      .add_scalar("I64", "plen")
      .add_scalar("int", "pad");
  return finished(preamble(backend, compute, input) + i64_prelude(backend), signature, w);
}

std::string CqtReduceKernel::key() const {
  return format("cqt_red_$_$_$",
                {std::to_string(compute), std::to_string(form), std::to_string(storage)}) +
         eps_key(form, eps);
}
std::string CqtReduceKernel::source(const Backend& backend) const {
  KernelWriter w(compute, backend);
  const std::string t = backend.scalar_type(compute);
  flat_row_index(w, "g", "(I64)rows * nf", "batch");
  w.stmt("I64 k = g / nf, t = g % nf;");
  w.stmt("const DEV cplx* Sf = S + (batch * nfl + t) * nb;");
  emit_bin_product(w, "Sf", "nb");
  w.stmt("I64 idx = (batch * n_bins + row_lo + k) * nf + t;");
  emit_bin_store(w, form, storage);
  KernelSignature signature(kName, backend);
  signature.add_const_pointer("cplx", "S")
      .add_pointer(output_type(backend, form, storage), "out")
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
  return finished(preamble(backend, compute, storage) + complex_prelude(backend, compute),
                  signature, w);
}

}  // namespace kevra::codegen
