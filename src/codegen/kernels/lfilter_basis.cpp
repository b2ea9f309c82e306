#include "codegen/kernels/lfilter_basis.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernels/lfilter_parts.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

constexpr int kBlock = LfilterBasisKernel::kBlock;

// From the predictor of order m to that of m - 1: (c[i] - k c[m - i]) / (1 - k^2) with k = c[m],
// and its error grows by 1 / (1 - k^2). |k| < 1 for all m is what makes a filter stable.
void step_down(KernelWriter& w) {
  w.stmt("for (int i = tid; i < PP; i += $) { ch[i] = (double)a[i]; cl[i] = 0; }", kBlock);
  w.stmt("for (int i = tid; i < PP * PP; i += $) W[i] = 0;", kBlock);
  w.barrier();
  w.stmt("int stable = 1;");
  w.stmt("double error = 1;");
  w.stmt("for (int m = PP; m > 0; --m) {");
  w.stmt("  double kh = ch[m - 1], kl = cl[m - 1], dh = 1, dl = 0;");
  w.stmt("  add_product(dh, dl, -kh, -kl, kh, kl);");
  w.stmt("  error /= dh;");
  w.line("    // the same for all threads, so all leave together");
  w.stmt("  if (!(dh > 0 && error < 1e200)) { stable = 0; break; }");
  w.stmt("  double unit = 1;");
  w.stmt("  while (4 * unit * unit <= error) unit *= 2;");
  w.stmt("  for (int i = tid; i < m - 1; i += $) {", kBlock);
  w.stmt("    double h = ch[i], l = cl[i];");
  w.stmt("    add_product(h, l, -kh, -kl, ch[m - 2 - i], cl[m - 2 - i]);");
  w.stmt("    double first = h / dh;");
  w.stmt("    add_product(h, l, -first, 0, dh, dl);");
  w.stmt("    double second = (h + l) / dh;");
  w.stmt("    ch2[i] = first + second; cl2[i] = second - (ch2[i] - first);");
  w.stmt("    W[(m - 1) * PP + m - 2 - i] = ch2[i] / unit;");
  w.stmt("  }");
  w.stmt("  if (tid == 0) W[(m - 1) * PP + m - 1] = 1 / unit;");
  w.barrier();
  w.stmt("  double* swap = ch; ch = ch2; ch2 = swap;");
  w.stmt("  swap = cl; cl = cl2; cl2 = swap;");
  w.stmt("}");
  w.stmt("if (!stable) {");
  w.barrier();
  w.stmt("  for (int i = tid; i < PP * PP; i += $) W[i] = i / PP == i % PP ? 1 : 0;", kBlock);
  w.barrier();
  w.stmt("}");
}

// L by columns, a thread each. The diagonal of W holds powers of two: dividing by it is exact.
void invert_basis(KernelWriter& w) {
  w.stmt("for (int c = tid; c < PP; c += $) for (int r = 0; r < PP; ++r) {", kBlock);
  w.stmt("  double h = r == c ? 1 : 0, l = 0;");
  w.stmt("  for (int z = c; z < r; ++z)");
  w.stmt("    add_product(h, l, -W[r * PP + z], 0, Lh[z * PP + c], Ll[z * PP + c]);");
  w.stmt("  if (r < c) h = 0;");
  w.stmt("  Lh[r * PP + c] = h / W[r * PP + r]; Ll[r * PP + c] = l / W[r * PP + r];");
  w.stmt("}");
}

// high + low = W (high + low) L, by way of the second pair.
void change_basis(KernelWriter& w) {
  w.stmt("for (int i = tid; i < PP * PP; i += $) {", kBlock);
  w.stmt("  int r = i / PP, c = i % PP;");
  w.stmt("  double h = 0, l = 0;");
  w.stmt("  for (int z = 0; z <= r; ++z)");
  w.stmt("    add_product(h, l, W[r * PP + z], 0, high[z * PP + c], low[z * PP + c]);");
  w.stmt("  high2[i] = h; low2[i] = l;");
  w.stmt("}");
  w.barrier();
  w.stmt("for (int i = tid; i < PP * PP; i += $) {", kBlock);
  w.stmt("  int r = i / PP, c = i % PP;");
  w.stmt("  double h = 0, l = 0;");
  w.stmt("  for (int z = c; z < PP; ++z)");
  w.stmt(
      "    add_product(h, l, high2[r * PP + z], low2[r * PP + z], Lh[z * PP + c], Ll[z * PP + "
      "c]);");
  w.stmt("  high[i] = h; low[i] = l;");
  w.stmt("}");
  w.barrier();
}

// An input at sample i of a stretch leaves A^(SEQ - 1 - i) e0 behind, which is the response to an
// impulse, latest value first.
void write_response(KernelWriter& w) {
  w.stmt("for (int i = tid; i < SEQ * PP; i += $) {", kBlock);
  w.stmt("  int since = SEQ - 1 - i / PP, r = i % PP;");
  w.stmt("  double h = 0, l = 0;");
  w.stmt("  for (int z = 0; z <= r && z <= since; ++z)");
  w.stmt(
      "    add_product(h, l, W[r * PP + z], 0, response[since - z], response[SEQ + since - z]);");
  w.stmt("  out[RESPONSE + i] = h;");
  w.stmt("}");
}

void write_basis(KernelWriter& w) {
  w.stmt("for (int i = tid; i < PP * PP; i += $) {", kBlock);
  w.stmt("  out[INVERSE + i] = Lh[i]; out[INVERSE + PP * PP + i] = Ll[i]; out[BASIS + i] = W[i];");
  w.stmt("}");
}

}  // namespace

std::string LfilterBasisKernel::key() const {
  std::string key = "lfilter_basis";
  for (const int part : {p, m1, prec, seq, levels}) key += "_" + std::to_string(part);
  return key;
}

std::string LfilterBasisKernel::source(const Backend& backend) const {
  const std::string t = backend.scalar_type(prec);
  KernelWriter w(kDouble, backend);
  KernelSignature signature(kName, backend);
  signature.add_const_pointer(t, "b").add_const_pointer(t, "a").add_pointer("double", "out");
  signature.set_launch_bounds(kBlock, -1);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("for (int i = tid; i < MT; i += $) out[i] = (double)b[i];", kBlock);
  if (p > 0) {
    signature.set_shared("double", "pairs");
    w.stmt("for (int i = tid; i < PP; i += $) out[MT + i] = (double)a[i];", kBlock);
    name_pair_matrices(w);
    w.stmt("double* W = low2 + PP * PP; double* Lh = W + PP * PP; double* Ll = Lh + PP * PP;");
    w.stmt("double* ch = Ll + PP * PP; double* cl = ch + PP;");
    w.stmt("double* ch2 = cl + PP; double* cl2 = ch2 + PP;");
    w.stmt("double* response = cl2 + PP;  // high parts, then low parts");
    step_down(w);
    invert_basis(w);
    first_power(w, kBlock, "if (c == 0) { response[s] = high[0]; response[SEQ + s] = low[0]; }");
    write_response(w);
    change_basis(w);
    write_basis(w);
    write_squares(w, kBlock, "POWERS", "double", true);
  }
  return i64_prelude(backend) +
         format(
             "#define PP $\n#define MT $\n#define SEQ $\n#define LEVELS $\n"
             "#define RESPONSE $\n#define POWERS $\n#define INVERSE $\n#define BASIS $\n",
             {std::to_string(p), std::to_string(m1), std::to_string(seq), std::to_string(levels),
              std::to_string(response()), std::to_string(powers()), std::to_string(inverse()),
              std::to_string(basis())}) +
         (p > 0 ? pair_arithmetic(backend) : "") + signature.head() + w.str() + "}\n";
}

}  // namespace kevra::codegen
