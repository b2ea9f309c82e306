#include "codegen/kernels/lfilter_parts.h"

namespace kevra::codegen {

// The product comes from fma, because a compiler may fuse a plain one with the sum behind it, and
// then the sum's rounding error is no longer what is computed for it.
std::string pair_arithmetic(const Backend& backend) {
  return backend.device_inline() +
         "void add_product(double& h, double& l, double ah, double al, double bh, double bl) {\n"
         "  double p = fma(ah, bh, 0.0);\n"
         "  double e = fma(al, bh, fma(ah, bl, fma(ah, bh, -p)));\n"
         "  double s = h + p, t = s - h;\n"
         "  e += (h - (s - t)) + (p - t) + l;\n"
         "  h = s + e;\n"
         "  l = e - (h - s);\n"
         "}\n";
}

void name_pair_matrices(KernelWriter& w) {
  w.stmt("double* high = pairs; double* low = high + PP * PP;");
  w.stmt("double* high2 = low + PP * PP; double* low2 = high2 + PP * PP;");
}

void first_power(KernelWriter& w, int block, const std::string& each_step) {
  w.line("  // A moves a column down by one and puts the recursion's next value on top, so each");
  w.line("  // thread has columns of its own");
  w.stmt("for (int c = tid; c < PP; c += $) {", block);
  w.stmt(
      "  for (int r = 0; r < PP; ++r) { high[r * PP + c] = r == c ? 1 : 0; low[r * PP + c] = 0; }");
  w.stmt("  for (int s = 0; s < SEQ; ++s) {");
  if (!each_step.empty()) w.stmt("    $", each_step);
  w.stmt("    double h = 0, l = 0;");
  w.stmt("    for (int j = 0; j < PP; ++j)");
  w.stmt("      add_product(h, l, -(double)a[j], 0, high[j * PP + c], low[j * PP + c]);");
  w.stmt("    for (int r = PP - 1; r > 0; --r) {");
  w.stmt(
      "      high[r * PP + c] = high[(r - 1) * PP + c]; low[r * PP + c] = low[(r - 1) * PP + c];");
  w.stmt("    }");
  w.stmt("    high[c] = h; low[c] = l;");
  w.stmt("  }");
  w.stmt("}");
  w.barrier();
}

void write_squares(KernelWriter& w, int block, const std::string& first,
                   const std::string& out_type, bool by_columns) {
  w.stmt("for (int level = 0; level < LEVELS; ++level) {");
  w.stmt("  for (int i = tid; i < PP * PP; i += $) {", block);
  w.stmt("    int r = i / PP, c = i % PP;");
  w.stmt("    out[$ + level * PP * PP + $] = ($)high[i];", first, by_columns ? "c * PP + r" : "i",
         out_type);
  w.stmt("    double h = 0, l = 0;");
  w.stmt("    for (int z = 0; z < PP; ++z)");
  w.stmt(
      "      add_product(h, l, high[r * PP + z], low[r * PP + z], high[z * PP + c], low[z * PP + "
      "c]);");
  w.stmt("    high2[i] = h; low2[i] = l;");
  w.stmt("  }");
  w.barrier();
  w.stmt("  double* swap = high; high = high2; high2 = swap;");
  w.stmt("  swap = low; low = low2; low2 = swap;");
  w.stmt("}");
}

}  // namespace kevra::codegen
