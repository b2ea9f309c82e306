#include "codegen/kernels/chain_rule.h"

#include <numbers>

#include "codegen/format.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"

namespace kevra::codegen {

std::string over_eps(const KernelWriter& w, double eps, double factor, const std::string& gradient,
                     const std::string& value, const std::string& name) {
  const std::string t = w.backend.scalar_type(w.prec);
  const std::string divisor = format("($ + ($)$)", {value, t, name});
  const std::string quotient =
      format("($)$ * $ / $", {t, number_literal(factor), gradient, divisor});
  // Below it the quotient may leave the range of the type, and infinity times a zero part is NaN.
  const double least = w.prec == kDouble ? 1e-300 : 1e-30;
  if (eps >= least) return quotient;
  return format("$ > ($)$ ? $ : ($)0", {divisor, t, number_literal(least), quotient, t});
}

void emit_magnitude_rule(KernelWriter& w, const std::string& power, const std::string& gradient) {
  const std::string t = w.backend.scalar_type(w.prec);
  w.stmt("$ mag = $;", t, w.sqrt_of(w.prec == kDouble ? power : "(float)" + power));
  w.stmt("$ c = (mag > ($)1e-12) ? $/mag : ($)0;", t, t, gradient, t);
}

void emit_chain_rule(KernelWriter& w, int form, double eps, const std::string& bin,
                     const std::string& gradient) {
  const std::string t = w.backend.scalar_type(w.prec);
  if (form == kPowerForm) {
    w.stmt("$ c = ($)2 * $;", t, t, gradient);
    return;
  }
  w.stmt("$ pw = $.x*$.x + $.y*$.y;", t, bin, bin, bin, bin);
  if (form == kMagnitudeForm) return emit_magnitude_rule(w, "pw", gradient);
  constexpr double kDecibelsPerNeper = 20 / std::numbers::ln10;
  w.stmt("$ c = $;", t, over_eps(w, eps, kDecibelsPerNeper, gradient, "pw"));
}

}  // namespace kevra::codegen
