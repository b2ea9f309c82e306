#include "codegen/kernels/half_spectrum.h"

namespace kevra::codegen {

void emit_even_odd(KernelWriter& w, const std::string& zk, const std::string& zn) {
  const std::string t = w.backend.scalar_type(w.prec);
  w.stmt("$ er = ($)0.5 * ($.x + $.x), ei = ($)0.5 * ($.y - $.y);", t, t, zk, zn, t, zk, zn);
  w.stmt("$ or_ = ($)0.5 * ($.x - $.x), oi = ($)0.5 * ($.y + $.y);", t, t, zk, zn, t, zk, zn);
}

void emit_turned(KernelWriter& w, int n, bool conjugate) {
  const std::string t = w.backend.scalar_type(w.prec);
  const std::string root = w.twiddle("k", n, false, conjugate);
  w.stmt("$ tr = $.x * or_ - $.y * oi;", t, root, root);
  w.stmt("$ ti = $.x * oi + $.y * or_;", t, root, root);
}

void load_bin(KernelWriter& w, int storage, const std::string& name, const std::string& source) {
  const std::string cast = "(" + w.backend.scalar_type(w.prec) + ")";
  w.stmt("cplx $; { $ v = $; $ = cmk($v.x, $v.y); }", name,
         storage == w.prec ? "cplx" : w.backend.vector2_type(storage), source, name, cast, cast);
}

void emit_packed_bin(KernelWriter& w, int n, int storage, const std::string& bin,
                     const std::string& mirror) {
  load_bin(w, storage, "xk", bin);
  load_bin(w, storage, "xn", mirror);
  w.line("  // bins of real rows: the first and the last are real");
  w.stmt("if (k == 0) { xk.y = 0; xn.y = 0; }");
  emit_even_odd(w, "xk", "xn");
  emit_turned(w, n, true);
}

}  // namespace kevra::codegen
