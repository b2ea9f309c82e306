#include "codegen/kernels/cqt_bins.h"

#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"

namespace kevra::codegen {
namespace {

// One running sum would round as often as a row is long, and every addition would wait for the one
// before.
constexpr int kSums = 4;

void emit_term(KernelWriter& w, const std::string& spectrum, int sum) {
  w.stmt("re$ += wr[lo+i+$] * $[lo+i+$].x - wi[lo+i+$] * $[lo+i+$].y;", sum, sum, spectrum, sum,
         sum, spectrum, sum);
  w.stmt("im$ += wr[lo+i+$] * $[lo+i+$].y + wi[lo+i+$] * $[lo+i+$].x;", sum, sum, spectrum, sum,
         sum, spectrum, sum);
}

std::string real_value(const KernelWriter& w, int form) {
  if (form == kPowerForm) return "p";
  if (form == kMagnitudeForm) return w.sqrt_of("p");
  return w.prec == kDouble ? "10.0 * log10(p + eps)" : "10.0f * " + w.backend.log10_call("p + eps");
}

}  // namespace

void emit_bin_product(KernelWriter& w, const std::string& spectrum, const std::string& bins) {
  const std::string t = w.backend.scalar_type(w.prec);
  w.stmt("const DEV $* wr = br + (I64)k * $;", t, bins);
  w.stmt("const DEV $* wi = bi + (I64)k * $;", t, bins);
  w.line("  // a row of zeros has its last column before its first");
  w.stmt("int lo = blo[k], len = bhi[k] + 1 - lo;");
  for (int s = 0; s < kSums; ++s) w.stmt("$ re$ = ($)0, im$ = ($)0;", t, s, t, s, t);
  w.stmt("int i = 0;");
  w.stmt("for (; i + $ < len; i += $) {", kSums - 1, kSums);
  for (int s = 0; s < kSums; ++s) emit_term(w, spectrum, s);
  w.stmt("}");
  w.stmt("for (; i < len; ++i) {");
  emit_term(w, spectrum, 0);
  w.stmt("}");
  w.stmt("$ re = (re0 + re1) + (re2 + re3), im = (im0 + im1) + (im2 + im3);", t);
}

void emit_bin_store(KernelWriter& w, int form, int storage) {
  if (form == kComplexForm) {
    w.stmt("out[idx] = $;", w.backend.make_vector2(storage, "re", "im"));
    return;
  }
  w.stmt("$ p = re * re + im * im;", w.backend.scalar_type(w.prec));
  w.stmt("out[idx] = $;", w.backend.convert_scalar(storage, real_value(w, form)));
}

}  // namespace kevra::codegen
