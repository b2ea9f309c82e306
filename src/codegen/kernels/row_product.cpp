#include "codegen/kernels/row_product.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

std::string stored_value(ProductStore mode, const std::string& type) {
  if (mode == ProductStore::kPlain) return "acc";
  return format("acc < ($)0 ? ($)0 : $",
                {type, type, mode == ProductStore::kClamp ? "acc" : "aux[g]"});
}

}  // namespace

std::string RowProductKernel::key() const {
  return format("pmatmul_$_$_$_m$",
                {std::to_string(prec), std::to_string(n_in), std::to_string(n_out),
                 std::to_string(static_cast<int>(mode))});
}

std::string RowProductKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  emit_product_place(w);
  emit_product_sum(w, "Tt", "M[$]");
  w.stmt("out[g] = $;", stored_value(mode, t));
  return i64_prelude(backend) + product_defines(n_in, n_out) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "M")
             .add_pointer(t, "out")
             .add_const_pointer(t, "Tt")
             .add_const_pointer(t, "aux")
             .add_scalar("I64", "nt")
             .set_launch_bounds(kBlock, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
