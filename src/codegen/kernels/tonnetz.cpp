#include "codegen/kernels/tonnetz.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

// Sine and cosine of p 7 pi / 6 and of p 3 pi / 2, and half of those of p 2 pi / 3, by columns p:
// the circles of fifths, minor thirds and major thirds. Written out, so that zeros are exact.
constexpr double kA = 0.8660254037844386;  // sqrt(3) / 2
constexpr double kB = 0.4330127018922193;  // sqrt(3) / 4
constexpr double kBasis[TonnetzKernel::kCoordinates][TonnetzKernel::kClasses] = {
    {0, -0.5, kA, -1, kA, -0.5, 0, 0.5, -kA, 1, -kA, 0.5},
    {1, -kA, 0.5, 0, -0.5, kA, -1, kA, -0.5, 0, 0.5, -kA},
    {0, -1, 0, 1, 0, -1, 0, 1, 0, -1, 0, 1},
    {1, 0, -1, 0, 1, 0, -1, 0, 1, 0, -1, 0},
    {0, kB, -kB, 0, kB, -kB, 0, kB, -kB, 0, kB, -kB},
    {0.5, -0.25, -0.25, 0.5, -0.25, -0.25, 0.5, -0.25, -0.25, 0.5, -0.25, -0.25},
};

}  // namespace

std::string tonnetz_basis_function(const Backend& backend, const std::string& t) {
  std::string text = backend.device_inline() + t + " kevra_tonnetz_basis(int d, int p) {\n";
  text += "  switch (d) {\n";
  for (int d = 0; d < TonnetzKernel::kCoordinates; ++d) {
    text += format("    case $: switch (p) {\n", {std::to_string(d)});
    for (int p = 0; p < TonnetzKernel::kClasses; ++p) {
      text += format("      case $: return ($)$;\n",
                     {std::to_string(p), t, number_literal(kBasis[d][p])});
    }
    text += "    }\n";
  }
  return text + format("  }\n  return ($)0;\n}\n", {t});
}

std::string TonnetzKernel::source(const Backend& backend) const {
  const int storage = storage_precision(prec);
  const std::string s = backend.scalar_type(storage);
  KernelWriter w(compute_precision(prec), backend);
  const std::string t = backend.scalar_type(w.prec);
  w.stmt("I64 row = (I64)$ * $ + $;", backend.block_index_x(), kBlock, backend.thread_index());
  w.stmt("if (row >= rows) return;");
  w.stmt("$ sum = ($)0;", t, t);
  w.stmt("for (int p = 0; p < $; ++p) sum += ($)c[row * $ + p];", kClasses, t, kClasses);
  w.stmt("for (int d = 0; d < $; ++d) {", kCoordinates);
  w.stmt("  $ value = ($)0;", t, t);
  w.stmt("  for (int p = 0; p < $; ++p)", kClasses);
  w.stmt("    value += kevra_tonnetz_basis(d, p) * ($)c[row * $ + p];", t, kClasses);
  w.stmt("  out[row * $ + d] = $;", kCoordinates,
         backend.convert_scalar(storage, "sum > 0 ? value / sum : (" + t + ")0"));
  w.stmt("}");
  return backend.source_preamble(storage) + i64_prelude(backend) +
         tonnetz_basis_function(backend, t) +
         KernelSignature(kName, backend)
             .add_const_pointer(s, "c")
             .add_pointer(s, "out")
             .add_scalar("I64", "rows")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
