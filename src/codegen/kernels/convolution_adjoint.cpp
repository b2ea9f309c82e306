#include "codegen/kernels/convolution_adjoint.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

constexpr int kBlock = 256;

int stored_as(int prec, bool is_complex) {
  return is_complex ? compute_precision(prec) : storage_precision(prec);
}

std::string base_key(const char* prefix, int prec, bool is_complex) {
  return format("$$_$", {prefix, std::to_string(compute_precision(prec)),
                         std::to_string(stored_as(prec, is_complex))}) +
         (is_complex ? "_x" : "");
}

std::string finished(KernelSignature& signature, const KernelWriter& body, bool is_complex) {
  signature.set_launch_bounds(kBlock, -1);
  return (is_complex ? complex_prelude(body.backend, body.prec) : i64_prelude(body.backend)) +
         signature.head() + body.str() + "}\n";
}

}  // namespace

std::string ConvStageKernel::key() const {
  return base_key("convstage_", prec, is_complex) + (reversed ? "_r" : "") +
         (conjugated ? "_c" : "");
}
std::string ConvStageKernel::source(const Backend& backend) const {
  KernelWriter w(compute_precision(prec), backend);
  const std::string t = backend.scalar_type(w.prec);
  const std::string value = format("x[row * len + $]", {reversed ? "(len - 1 - j)" : "j"});
  flat_row_index(w, "j", "len");
  if (!is_complex) {
    w.stmt("out[row * nf + off + j] = ($)$;", t, value);
  } else if (conjugated) {
    w.stmt("cplx v = $; out[row * nf + off + j] = cmk(v.x, -v.y);", value);
  } else {
    w.stmt("out[row * nf + off + j] = $;", value);
  }
  KernelSignature signature(kName, backend);
  signature
      .add_const_pointer(is_complex ? "cplx" : backend.scalar_type(stored_as(prec, is_complex)),
                         "x")
      .add_pointer(is_complex ? "cplx" : t, "out")
      .add_scalar("I64", "len")
      .add_scalar("I64", "nf")
      .add_scalar("I64", "off");
  return finished(signature, w, is_complex);
}

std::string ConvRowSumKernel::key() const {
  return base_key("convrowsum_", prec, is_complex);
}
std::string ConvRowSumKernel::source(const Backend& backend) const {
  KernelWriter w(compute_precision(prec), backend);
  const std::string t = backend.scalar_type(w.prec);
  const int storage = stored_as(prec, is_complex);
  w.stmt("I64 j = (I64)$ * $ + $;", backend.block_index_x(), kBlock, backend.thread_index());
  w.stmt("if (j >= len) return;");
  if (is_complex) {
    w.stmt("$ ar = ($)0, ai = ($)0;", t, t, t);
    w.stmt("for (I64 r = 0; r < rows; ++r) {");
    w.stmt("  cplx v = x[r * len + j];");
    w.stmt("  ar += v.x; ai += v.y;");
    w.stmt("}");
    w.stmt("y[j] = cmk(ar, ai);");
  } else {
    w.stmt("$ acc = ($)0;", t, t);
    w.stmt("for (I64 r = 0; r < rows; ++r) acc += x[r * len + j];");
    w.stmt("y[j] = $;", backend.convert_scalar(storage, "acc"));
  }
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(is_complex ? "cplx" : t, "x")
      .add_pointer(is_complex ? "cplx" : backend.scalar_type(storage), "y")
      .add_scalar("I64", "rows")
      .add_scalar("I64", "len");
  return finished(signature, w, is_complex);
}

}  // namespace kevra::codegen
