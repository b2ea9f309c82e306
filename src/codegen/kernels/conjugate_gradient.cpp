#include "codegen/kernels/conjugate_gradient.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

void emit_thread_of_system(KernelWriter& w) {
  w.stmt("int i = (int)$ * 256 + $;", w.backend.block_index_x(), w.backend.thread_index());
}

// A system that is solved has 0 over 0 from here on: with the divisor held above 0, its step is 0
// and it stays where it is.
std::string held_above_zero(const std::string& type, const std::string& divisor) {
  const std::string least = "(" + type + ")1e-30";
  return "(" + divisor + " > " + least + " ? " + divisor + " : " + least + ")";
}

std::string finished(const Backend& backend, KernelSignature& signature, const KernelWriter& body) {
  signature.set_launch_bounds(256, -1);
  return i64_prelude(backend) + signature.head() + body.str() + "}\n";
}

}  // namespace

std::string VectorDotKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string type = backend.scalar_type(prec);
  const std::string red = backend.shared_pointer_type(type);
  w.stmt("$ red = ($)smem;", red, red);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("int batch = $;", backend.block_index_x());
  w.stmt("I64 base = (I64)batch * n;");
  w.stmt("$ a = ($)0;", type, type);
  w.stmt("for (I64 i = tid; i < n; i += $) a += u[base + i] * v[base + i];", kBlock);
  w.stmt("red[tid] = a;");
  w.barrier();
  w.stmt("for (int s = $; s > 0; s >>= 1) {", kBlock / 2);
  w.stmt("  if (tid < s) red[tid] += red[tid + s];");
  w.barrier();
  w.stmt("}");
  w.stmt("if (tid == 0) out[batch] = red[0];");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(type, "u")
      .add_const_pointer(type, "v")
      .add_pointer(type, "out")
      .add_scalar("I64", "n")
      .set_shared("char", "smem");
  return finished(backend, signature, w);
}

std::string VectorUpdateKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string type = backend.scalar_type(prec);
  flat_row_index(w, "i", "n", "batch");
  w.stmt("I64 o = batch * n + i;");
  w.stmt("y[o] = a[batch] * x[o] + c[batch] * y[o];");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(type, "x")
      .add_pointer(type, "y")
      .add_const_pointer(type, "a")
      .add_const_pointer(type, "c")
      .add_scalar("I64", "n");
  return finished(backend, signature, w);
}

std::string CgAlphaKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string type = backend.scalar_type(prec);
  emit_thread_of_system(w);
  w.stmt("if (i < nb) {");
  w.stmt("  $ pd = pap[i];", type);
  w.stmt("  $ al = rs[i] / $;", type, held_above_zero(type, "pd"));
  w.stmt("  ab_y[i] = al; ab_y[nb + i] = ($)1;", type);
  w.stmt("  ab_r[i] = -al; ab_r[nb + i] = ($)1;", type);
  w.stmt("}");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(type, "rs")
      .add_const_pointer(type, "pap")
      .add_pointer(type, "ab_y")
      .add_pointer(type, "ab_r")
      .add_scalar("int", "nb");
  return finished(backend, signature, w);
}

std::string CgBetaKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string type = backend.scalar_type(prec);
  emit_thread_of_system(w);
  w.stmt("if (i < nb) {");
  w.stmt("  $ old = rs[i];", type);
  w.stmt("  ab_p[i] = ($)1;", type);
  w.stmt("  ab_p[nb + i] = rs_new[i] / $;", held_above_zero(type, "old"));
  w.stmt("  rs[i] = rs_new[i];");
  w.stmt("}");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(type, "rs_new")
      .add_pointer(type, "rs")
      .add_pointer(type, "ab_p")
      .add_scalar("int", "nb");
  return finished(backend, signature, w);
}

}  // namespace kevra::codegen
