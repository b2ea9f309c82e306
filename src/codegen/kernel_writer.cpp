#include "codegen/kernel_writer.h"

#include <cmath>
#include <numbers>

#include "codegen/precision.h"

namespace kevra::codegen {
namespace {

// The angle of one step of the full circle, in radians, without the step's size.
double circle(bool conjugate) {
  return conjugate ? 2 * std::numbers::pi : -2 * std::numbers::pi;
}

}  // namespace

void KernelWriter::for_loop(const std::string& var, const std::string& first,
                            const std::string& limit, const std::string& step,
                            const std::function<void(const std::string&)>& body) {
  stmt("for (int $ = $; $ < $; $ += $) {", var, first, var, limit, var, step);
  body(var);
  stmt("}");
}

void KernelWriter::if_block(const std::string& cond, const std::function<void()>& body) {
  stmt("if ($) {", cond);
  body();
  stmt("}");
}

std::string KernelWriter::define(const char* fmt, const std::vector<std::string>& args) {
  std::string name = fresh("v");
  stmt("cplx $ = $;", name, format(fmt, args));
  return name;
}

std::string KernelWriter::complex_value(const std::string& re, const std::string& im) {
  return define("cmk($, $)", {re, im});
}
std::string KernelWriter::complex_load(const std::string& base, const std::string& index) {
  return define("$[$]", {base, index});
}
std::string KernelWriter::cadd(const std::string& a, const std::string& b) {
  return define("cadd($, $)", {a, b});
}
std::string KernelWriter::csub(const std::string& a, const std::string& b) {
  return define("csub($, $)", {a, b});
}
std::string KernelWriter::cmul(const std::string& a, const std::string& b) {
  return define("cmul($, $)", {a, b});
}

std::string KernelWriter::complex_constant(double re, double im) {
  const std::string scalar = backend.scalar_type(prec);
  return define("cmk(($)$, ($)$)", {scalar, number_literal(re), scalar, number_literal(im)});
}
std::string KernelWriter::root_constant(int k, int n, bool conjugate) {
  const double angle = circle(conjugate) * k / n;
  return complex_constant(std::cos(angle), std::sin(angle));
}
std::string KernelWriter::scale_real(const std::string& a, double c) {
  const std::string scalar = backend.scalar_type(prec);
  const std::string literal = number_literal(c);
  return define("cmk($.x*($)$, $.y*($)$)", {a, scalar, literal, a, scalar, literal});
}
std::string KernelWriter::multiply_constant(const std::string& a, double re, double im) {
  const std::string constant = complex_constant(re, im);
  return cmul(a, constant);
}

std::string KernelWriter::twiddle(const std::string& index, int order, bool from_shared,
                                  bool conjugate) {
  const TwiddleTable* table = table_for(order);
  if (from_shared || table != nullptr) {
    const std::string root =
        from_shared
            ? complex_load("twsh", index)
            : define("$[($) * $]", {table->name, index, std::to_string(table->size / order)});
    return conjugate ? complex_value(root + ".x", "-" + root + ".y") : root;
  }

  // Half kernels form the angle in float: eleven bits would not hold it.
  const std::string working = backend.scalar_type(prec == kDouble ? kDouble : kFloat);
  const std::string angle = fresh("a");
  const std::string cosine = fresh("c");
  const std::string sine = fresh("s");
  const double step = circle(conjugate) / order;
  if (prec != kFloat) {
    stmt("$ $ = ($)($) * ($)($);", working, angle, working, number_literal(step), working, index);
  } else {
    // What a float leaves out of the step counts `index` times: without it a float transform of
    // 10000 points is off by 4.2e-7, with it by 2.8e-7. A plain sum, which compilers fuse as they
    // like, gains half of that.
    stmt("float $ = fmaf((float)($), (float)($), (float)($) * (float)($));", angle,
         number_literal(step), index, number_literal(step - static_cast<float>(step)), index);
  }
  stmt("$ $, $; $", working, cosine, sine, backend.sincos_call(prec, angle, cosine, sine));
  const std::string cast = "(" + backend.scalar_type(prec) + ")";
  return complex_value(cast + cosine, cast + sine);
}

const TwiddleTable* KernelWriter::table_for(int order) const {
  for (const TwiddleTable& table : twiddle_tables) {
    if (table.size % order == 0) return &table;
  }
  return nullptr;
}
int KernelWriter::table_stride(int order) const {
  const TwiddleTable* table = table_for(order);
  return table == nullptr ? 0 : table->size / order;
}

std::string KernelWriter::log_of(const std::string& x) const {
  return prec == kDouble ? format("log($)", {x}) : backend.log_call(x);
}
std::string KernelWriter::exp_of(const std::string& x) const {
  return prec == kDouble ? format("exp($)", {x}) : backend.exp_call(x);
}
std::string KernelWriter::pow_of(const std::string& a, const std::string& b) const {
  return prec == kDouble ? format("pow($, $)", {a, b}) : backend.pow_call(a, b);
}
std::string KernelWriter::sqrt_of(const std::string& x) const {
  return prec == kDouble ? format("sqrt($)", {x}) : backend.sqrt_call(x);
}

}  // namespace kevra::codegen
