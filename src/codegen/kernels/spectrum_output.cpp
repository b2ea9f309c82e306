#include "codegen/kernels/spectrum_output.h"

#include <bit>
#include <cstdint>
#include <cstdio>

#include "codegen/format.h"
#include "codegen/precision.h"
#include "codegen/sizes.h"

namespace kevra::codegen {
namespace {

std::string real_value(const KernelWriter& w, int form) {
  const std::string power = "re*re + im*im";
  const bool wide = w.prec == kDouble;
  if (form == kPowerForm) return "(" + power + ")";
  if (form == kMagnitudeForm) return w.sqrt_of(wide ? power : "(float)(" + power + ")");
  return wide ? "((double)10*log10(" + power + " + (double)EPS))"
              : "((float)10*" + w.backend.log10_call("(float)(" + power + ") + (float)EPS") + ")";
}

}  // namespace

std::string eps_define(int form, double eps) {
  return form == kDecibelForm ? format("#define EPS $\n", {number_literal(eps)}) : "";
}

std::string eps_key(int form, double eps) {
  if (form != kDecibelForm) return "";
  char text[20];
  std::snprintf(text, sizeof text, "_e%016llx",
                static_cast<unsigned long long>(std::bit_cast<uint64_t>(eps)));
  return text;
}

std::string output_type(const Backend& backend, int form, int storage) {
  return form == kComplexForm ? backend.vector2_type(storage) : backend.scalar_type(storage);
}

size_t output_bytes(int form, int storage) {
  return complex_bytes(storage) / (form == kComplexForm ? 1 : 2);
}

void emit_output_element(KernelWriter& w, int form, int storage, const std::string& destination,
                         const std::string& re, const std::string& im) {
  if (form == kComplexForm) {
    w.stmt("$ = $;", destination, w.backend.make_vector2(storage, re, im));
    return;
  }
  // Half arithmetic leaves off here: the square of a bin that a half holds need not fit one.
  const std::string type = w.backend.scalar_type(compute_precision(w.prec));
  w.stmt("{ $ re=$, im=$; $ = $; }", type, re, im, destination,
         w.backend.convert_scalar(storage, real_value(w, form)));
}

}  // namespace kevra::codegen
