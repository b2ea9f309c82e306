#include "codegen/kernels/half_spectrum.h"

namespace kevra::codegen {

void load_bin(KernelWriter& w, int storage, const std::string& name, const std::string& source) {
  const std::string cast = storage == w.prec ? "" : "(" + w.backend.scalar_type(w.prec) + ")";
  w.stmt("cplx $; { $ v = $; $ = cmk($v.x, $v.y); }", name, w.backend.vector2_type(storage), source,
         name, cast, cast);
}

FoldedBin fold_bins(KernelWriter& w, int n, const std::string& k) {
  const std::string t = w.backend.scalar_type(w.prec);
  w.stmt("$ er = ($)0.5 * (xk.x + xn.x), ei = ($)0.5 * (xk.y - xn.y);", t, t, t);
  w.stmt("$ or_ = ($)0.5 * (xk.x - xn.x), oi = ($)0.5 * (xk.y + xn.y);", t, t, t);
  const std::string root = w.twiddle(k, n, false, true);
  w.stmt("$ tr = $.x * or_ - $.y * oi;", t, root, root);
  w.stmt("$ ti = $.x * oi + $.y * or_;", t, root, root);
  return {"er - ti", "ei + tr"};
}

}  // namespace kevra::codegen
