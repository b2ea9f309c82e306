#include "codegen/kernels/icqt.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

constexpr int kBlock = 256;

}  // namespace

std::string IcqtDualKernel::key() const {
  return "icqt_dual_" + std::to_string(prec);
}
std::string IcqtDualKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  flat_row_index(w, "g", "nf * half_f", "batch");
  w.stmt("I64 t = g / half_f; int j = (int)(g % half_f);");
  w.stmt("cplx acc = cmk(0, 0);");
  w.stmt("if (j < half_d) {");
  w.stmt("  for (int k = 0; k < rows; ++k)");
  w.stmt("    acc = cadd(acc, cmul(C[(batch * n_bins + row_lo + k) * nf + t],");
  w.stmt("                         D[(I64)k * half_d + j]));");
  w.stmt("}");
  w.stmt("Xf[(batch * nf + t) * half_f + j] = acc;");
  return complex_prelude(backend, prec) +
         KernelSignature(kName, backend)
             .add_const_pointer("cplx", "C")
             .add_pointer("cplx", "Xf")
             .add_const_pointer("cplx", "D")
             .add_scalar("I64", "nf")
             .add_scalar("int", "half_f")
             .add_scalar("int", "half_d")
             .add_scalar("int", "rows")
             .add_scalar("int", "n_bins")
             .add_scalar("int", "row_lo")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

std::string IcqtOverlapKernel::key() const {
  return "icqt_ola_" + std::to_string(prec);
}
std::string IcqtOverlapKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string type = backend.scalar_type(prec);
  flat_row_index(w, "t", "T", "batch");
  w.stmt("I64 f_hi = t / h; if (f_hi > nf - 1) f_hi = nf - 1;");
  w.stmt("I64 f_lo = t >= span ? (t - span) / h + 1 : 0;");
  w.stmt("$ acc = ($)0;", type, type);
  w.stmt("for (I64 f = f_lo; f <= f_hi; ++f)");
  w.stmt("  acc += frames[(batch * nf + f) * span + (t - f * h)];");
  w.line("  // no frame reaches over some samples behind the last one, and none over gaps");
  w.stmt("I64 cov = f_hi - f_lo + 1; if (cov < 1) cov = 1;");
  w.stmt("y[batch * T + t] += acc * scale / ($)cov;", type);
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(type, "frames")
             .add_pointer(type, "y")
             .add_scalar("I64", "T")
             .add_scalar("I64", "nf")
             .add_scalar("int", "span")
             .add_scalar("int", "h")
             .add_scalar(type, "scale")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
