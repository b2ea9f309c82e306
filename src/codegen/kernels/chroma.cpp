#include "codegen/kernels/chroma.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {

namespace {

constexpr int kBlock = 256;

// acc: the sums of frame t by class; peak: the largest.
void emit_sums(KernelWriter& w) {
  const std::string t = w.backend.scalar_type(w.prec);
  flat_row_index(w, "t", "nf", "batch");
  w.stmt("$ acc[NCHROMA];", t);
  w.stmt("for (int c = 0; c < NCHROMA; ++c) acc[c] = ($)0;", t);
  w.stmt("for (int i = 0; i < n_bins; ++i)");
  w.stmt("  acc[cls[i]] += mag[(batch * n_bins + i) * nf + t];");
  w.line("  // from above 0, so that a silent frame stays silent");
  w.stmt("$ peak = ($)1e-30;", t, t);
  w.stmt("for (int c = 0; c < NCHROMA; ++c) if (acc[c] > peak) peak = acc[c];");
}

std::string prelude(const Backend& backend, int prec, int n_chroma) {
  return backend.source_preamble(prec) + i64_prelude(backend) +
         format("#define NCHROMA $\n", {std::to_string(n_chroma)});
}

}  // namespace

std::string ChromaKernel::key() const {
  return format("chroma_$_$_$",
                {std::to_string(compute), std::to_string(n_chroma), std::to_string(storage)});
}

std::string ChromaKernel::source(const Backend& backend) const {
  KernelWriter w(compute, backend);
  emit_sums(w);
  w.stmt("for (int c = 0; c < NCHROMA; ++c)");
  w.stmt("  out[(batch * NCHROMA + c) * nf + t] = $;",
         backend.convert_scalar(storage, "acc[c] / peak"));
  return prelude(backend, storage == kHalf ? kHalf : compute, n_chroma) +
         KernelSignature(kName, backend)
             .add_const_pointer(backend.scalar_type(compute), "mag")
             .add_pointer(backend.scalar_type(storage), "out")
             .add_const_pointer("int", "cls")
             .add_scalar("int", "n_bins")
             .add_scalar("I64", "nf")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

std::string ChromaAdjointKernel::key() const {
  return format("chradj_$_$", {std::to_string(compute), std::to_string(n_chroma)});
}

std::string ChromaAdjointKernel::source(const Backend& backend) const {
  KernelWriter w(compute, backend);
  const std::string t = backend.scalar_type(compute);
  emit_sums(w);
  w.stmt("for (int i = 0; i < n_bins; ++i)");
  w.stmt(
      "  gmag[(batch * n_bins + i) * nf + t] = "
      "g[(batch * NCHROMA + cls[i]) * nf + t] / peak;");
  return prelude(backend, compute, n_chroma) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "mag")
             .add_pointer(t, "gmag")
             .add_const_pointer(t, "g")
             .add_const_pointer("int", "cls")
             .add_scalar("int", "n_bins")
             .add_scalar("I64", "nf")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
