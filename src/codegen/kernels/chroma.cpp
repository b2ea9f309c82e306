#include "codegen/kernels/chroma.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {

std::string ChromaKernel::key() const {
  return format("chroma_$_$_$",
                {std::to_string(compute), std::to_string(n_chroma), std::to_string(storage)});
}

std::string ChromaKernel::source(const Backend& backend) const {
  constexpr int kBlock = 256;
  KernelWriter w(compute, backend);
  const std::string t = backend.scalar_type(compute);
  flat_row_index(w, "t", "nf", "batch");
  w.stmt("$ acc[NCHROMA];", t);
  w.stmt("for (int c = 0; c < NCHROMA; ++c) acc[c] = ($)0;", t);
  w.stmt("for (int i = 0; i < n_bins; ++i)");
  w.stmt("  acc[cls[i]] += mag[(batch * n_bins + i) * nf + t];");
  w.line("  // from above 0, so that a silent frame stays silent");
  w.stmt("$ peak = ($)1e-30;", t, t);
  w.stmt("for (int c = 0; c < NCHROMA; ++c) if (acc[c] > peak) peak = acc[c];");
  w.stmt("for (int c = 0; c < NCHROMA; ++c)");
  w.stmt("  out[(batch * NCHROMA + c) * nf + t] = $;",
         backend.convert_scalar(storage, "acc[c] / peak"));
  return backend.source_preamble(storage == kHalf ? kHalf : compute) + i64_prelude(backend) +
         format("#define NCHROMA $\n", {std::to_string(n_chroma)}) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "mag")
             .add_pointer(backend.scalar_type(storage), "out")
             .add_const_pointer("int", "cls")
             .add_scalar("int", "n_bins")
             .add_scalar("I64", "nf")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
