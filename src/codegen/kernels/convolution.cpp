#include "codegen/kernels/convolution.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

constexpr int kBlock = 256;

std::string arithmetic_and_storage(const char* prefix, int prec) {
  return prefix + std::to_string(compute_precision(prec)) + "_" +
         std::to_string(storage_precision(prec));
}

std::string finished(const std::string& prelude, KernelSignature& signature,
                     const KernelWriter& body) {
  signature.set_launch_bounds(kBlock, -1);
  return prelude + signature.head() + body.str() + "}\n";
}

}  // namespace

std::string ConvPadKernel::key() const {
  return arithmetic_and_storage("conv_pad_", prec);
}
std::string ConvPadKernel::source(const Backend& backend) const {
  KernelWriter w(compute_precision(prec), backend);
  const std::string t = backend.scalar_type(w.prec);
  flat_row_index(w, "j", "plen");
  w.stmt("out[row * plen + j] = j < n ? ($)x[row * n + j] : ($)0;", t, t);
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(backend.scalar_type(storage_precision(prec)), "x")
      .add_pointer(t, "out")
      .add_scalar("I64", "n")
      .add_scalar("I64", "plen");
  return finished(i64_prelude(backend), signature, w);
}

std::string ConvMultiplyKernel::key() const {
  return "conv_mul_" + std::to_string(compute_precision(prec));
}
std::string ConvMultiplyKernel::source(const Backend& backend) const {
  KernelWriter w(compute_precision(prec), backend);
  flat_row_index(w, "i", "nb");
  w.stmt("z[row * nb + i] = cmul(z[row * nb + i], w[(bstride ? row : 0) * nb + i]);");
  KernelSignature signature(kName, backend);
  signature.add_const_pointer("cplx", "w")
      .add_pointer("cplx", "z")
      .add_scalar("I64", "nb")
      .add_scalar("int", "bstride");
  return finished(complex_prelude(backend, w.prec), signature, w);
}

std::string ConvSliceKernel::key() const {
  return arithmetic_and_storage("conv_slice_", prec);
}
std::string ConvSliceKernel::source(const Backend& backend) const {
  KernelWriter w(compute_precision(prec), backend);
  const int storage = storage_precision(prec);
  flat_row_index(w, "j", "outlen");
  w.stmt("y[row * outlen + j] = $;", backend.convert_scalar(storage, "x[row * nf + start + j]"));
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(backend.scalar_type(w.prec), "x")
      .add_pointer(backend.scalar_type(storage), "y")
      .add_scalar("I64", "nf")
      .add_scalar("I64", "start")
      .add_scalar("I64", "outlen");
  return finished(i64_prelude(backend), signature, w);
}

std::string ConvDirectKernel::key() const {
  return arithmetic_and_storage("convdir_", prec);
}
std::string ConvDirectKernel::source(const Backend& backend) const {
  KernelWriter w(compute_precision(prec), backend);
  const int storage = storage_precision(prec);
  const std::string t = backend.scalar_type(w.prec);
  const std::string stored = backend.scalar_type(storage);
  w.stmt("I64 i = (I64)$ * $ + $;", backend.block_index_x(), kBlock, backend.thread_index());
  w.stmt("if (i >= L) return;");
  w.stmt("I64 r = (I64)$;", backend.block_index_y());
  w.stmt("I64 abase = r * n, bbase = bshare ? (I64)0 : r * m;");
  w.stmt("I64 t = i + start;");
  w.line("  // the j for which j lies in b and t - j in a; none outside the convolution");
  w.stmt("I64 jlo = t - (n - 1); if (jlo < 0) jlo = 0;");
  w.stmt("I64 jhi = t < m - 1 ? t : m - 1;");
  w.stmt("$ acc = ($)0;", t, t);
  w.stmt("for (I64 j = jlo; j <= jhi; ++j) acc += ($)b[bbase + j] * ($)a[abase + t - j];", t, t);
  w.stmt("y[r * L + i] = $;", backend.convert_scalar(storage, "acc"));
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(stored, "a")
      .add_const_pointer(stored, "b")
      .add_pointer(stored, "y")
      .add_scalar("I64", "n")
      .add_scalar("I64", "m")
      .add_scalar("I64", "L")
      .add_scalar("I64", "start")
      .add_scalar("int", "bshare");
  return finished(i64_prelude(backend), signature, w);
}

}  // namespace kevra::codegen
