#include "codegen/kernels/rfft_tiny.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"

namespace kevra::codegen {
namespace {

void emit_forward(KernelWriter& w, const RealRows& rows, const std::string& t) {
  const std::string cast = "(" + t + ")";
  w.stmt("$ a = $x[at];", t, cast);
  if (rows.n > 1) w.stmt("$ c = $x[at + 1];", t, cast);
  if (rows.n > 2) w.stmt("$ d = $x[at + 2];", t, cast);
  const std::string zero = cast + "0";
  switch (rows.n) {
    case 1:
      return store_bin(w, rows, "row", "0", "a", zero);
    case 2:
      store_bin(w, rows, "row", "0", "a + c", zero);
      return store_bin(w, rows, "row", "1", "a - c", zero);
    default:
      store_bin(w, rows, "row", "0", "a + c + d", zero);
      store_bin(w, rows, "row", "1", "a - " + cast + "0.5 * (c + d)",
                "-" + cast + "0.86602540378443865 * (c - d)");
  }
}

// The imaginary part of bin 0, and for n = 2 of bin 1, is never read.
void emit_inverse(KernelWriter& w, const RealRows& rows, const std::string& t) {
  const std::string cast = "(" + t + ")";
  const auto store = [&](int i, const std::string& value) {
    w.stmt("out[at + $] = $;", i, w.backend.convert_scalar(rows.storage, value));
  };
  w.stmt("iot t0 = X[row * $]; $ a = $t0.x;", rows.bins(), t, cast);
  if (rows.n == 1) return store(0, "a");
  w.stmt("iot t1 = X[row * $ + 1]; $ br = $t1.x;", rows.bins(), t, cast);
  if (rows.n == 2) {
    store(0, cast + "0.5 * (a + br)");
    return store(1, cast + "0.5 * (a - br)");
  }
  w.stmt("$ bi = $t1.y;", t, cast);
  w.stmt("$ third = $1 / $3, s3 = $1.7320508075688772;", t, cast, cast, cast);
  store(0, "third * (a + " + cast + "2 * br)");
  store(1, "third * (a - br - s3 * bi)");
  store(2, "third * (a - br + s3 * bi)");
}

}  // namespace

std::string TinyRealFftKernel::key() const {
  return format("$_$_$_$", {data.inverse ? "cirffttiny" : "crffttiny", std::to_string(data.n),
                            std::to_string(data.compute), std::to_string(data.storage)});
}

std::string tiny_rfft_source(const TinyRealFftKernel& kernel, const Backend& backend) {
  const RealRows& rows = kernel.data;
  const std::string t = backend.scalar_type(rows.compute);
  const std::string sample = backend.scalar_type(rows.storage);
  KernelWriter w(rows.compute, backend);
  w.stmt("I64 row = (I64)$ * $ + $;", backend.block_index_x(), TinyRealFftKernel::kBlock,
         backend.thread_index());
  w.stmt("if (row >= nrows) return;");
  w.stmt("I64 at = row * $;", rows.n);
  rows.inverse ? emit_inverse(w, rows, t) : emit_forward(w, rows, t);

  KernelSignature signature(TinyRealFftKernel::kName, backend);
  signature.add_const_pointer(rows.inverse ? "iot" : sample, rows.inverse ? "X" : "x")
      .add_pointer(rows.inverse ? sample : "iot", "out")
      .add_scalar("int", "nrows");
  return real_prelude(rows, backend) + signature.head() + w.str() + "}\n";
}

}  // namespace kevra::codegen
