#include "codegen/kernels/lfilter_pack.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernels/lfilter_parts.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"

namespace kevra::codegen {

std::string LfilterPackKernel::key() const {
  return "lfilter_pack_" + std::to_string(p) + "_" + std::to_string(m1) + "_" +
         std::to_string(prec);
}

std::string LfilterPackKernel::source(const Backend& backend) const {
  const std::string t = backend.scalar_type(prec);
  KernelWriter w(kDouble, backend);
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(t, "b").add_const_pointer(t, "a").add_pointer(t, "out");
  signature.set_launch_bounds(kBlock, -1);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("for (int i = tid; i < MT; i += $) out[i] = b[i];", kBlock);
  if (p > 0) {
    signature.set_shared("double", "pairs");
    w.stmt("for (int i = tid; i < PP; i += $) out[MT + i] = a[i];", kBlock);
    name_pair_matrices(w);
    first_power(w, kBlock, "");
    write_squares(w, kBlock, "MT + PP", t, false);
  }
  return i64_prelude(backend) +
         format("#define PP $\n#define MT $\n#define SEQ $\n#define LEVELS $\n",
                {std::to_string(p), std::to_string(m1), std::to_string(kSeq),
                 std::to_string(kLevels)}) +
         (p > 0 ? pair_arithmetic(backend) : "") + signature.head() + w.str() + "}\n";
}

}  // namespace kevra::codegen
