#include "codegen/kernels/spectral.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/statistic.h"
#include "codegen/prelude.h"

namespace kevra::codegen {

std::string SpectralKernel::source(const Backend& backend) const {
  const int storage = storage_precision(prec);
  KernelWriter w(compute_precision(prec), backend);
  const std::string t = backend.scalar_type(w.prec);
  const std::string shared = backend.shared_pointer_type(t);
  w.stmt("$ red0 = ($)smem;", shared, shared);
  w.stmt("$ red1 = red0 + $;", shared, kBlock);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("I64 base = (I64)$ * n;", backend.block_index_x());
  emit_statistic(w, stat,
                 {.index = "I64",
                  .count = "n",
                  .threads = std::to_string(kBlock),
                  .value = format("($)M[base + i]", {t}),
                  .first = "tid == 0",
                  .store = [&](const std::string& value) {
                    w.stmt("out[$] = $;", backend.block_index_x(),
                           backend.convert_scalar(storage, value));
                  }});
  const std::string type = backend.scalar_type(storage);
  return backend.source_preamble(storage) + i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(type, "M")
             .add_pointer(type, "out")
             .add_scalar(t, "fstep")
             .add_scalar(t, "pp")
             .add_scalar(t, "amin")
             .add_scalar(t, "roll")
             .add_scalar("I64", "n")
             .set_shared("char", "smem")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
