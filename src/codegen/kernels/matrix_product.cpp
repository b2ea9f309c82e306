#include "codegen/kernels/matrix_product.h"

#include "codegen/format.h"

namespace kevra::codegen {

// One running sum would round a thousand times over wide bands, and every addition would wait for
// the one before.
void emit_weighted_sum(KernelWriter& w, const std::string& type, const std::string& length,
                       const std::string& weight, const std::string& value) {
  constexpr int kSums = 4;
  const auto add = [&](int sum, int step) {
    const std::string place = std::to_string(step);
    w.stmt("acc$ += $ * $;", sum, format(weight.c_str(), {place}), format(value.c_str(), {place}));
  };
  for (int s = 0; s < kSums; ++s) w.stmt("$ acc$ = ($)0;", type, s, type);
  w.stmt("int i = 0;");
  w.stmt("for (; i + $ < $; i += $) {", kSums - 1, length, kSums);
  for (int s = 0; s < kSums; ++s) add(s, s);
  w.stmt("}");
  w.stmt("for (; i < $; ++i) {", length);
  add(0, 0);
  w.stmt("}");
  w.stmt("$ acc = (acc0 + acc1) + (acc2 + acc3);", type);
}

std::string product_defines(int n_in, int n_out) {
  return format("#define NIN $\n#define NOUT $\n", {std::to_string(n_in), std::to_string(n_out)});
}

void emit_product_place(KernelWriter& w) {
  w.stmt("I64 g = (I64)$ * $ + $;", w.backend.block_index_x(), kProductBlock,
         w.backend.thread_index());
  w.stmt("if (g >= nt * NOUT) return;");
  w.stmt("I64 f = g / NOUT;");
  w.stmt("int k = (int)(g % NOUT);");
}

void emit_product_sum(KernelWriter& w, const std::string& matrix, const std::string& value) {
  w.stmt("I64 a0 = (I64)k * NIN, r0 = f * NIN;");
  emit_weighted_sum(w, w.backend.scalar_type(w.prec), "NIN", matrix + "[a0+i+$]",
                    format(value.c_str(), {"r0+i+$"}));
}

}  // namespace kevra::codegen
