#include "codegen/kernels/lfilter.h"

#include <algorithm>
#include <bit>

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/lfilter_parts.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

// Past this a stretch is left as a loop: registers would not hold it anyway.
constexpr int kLongestUnrolled = 32;
constexpr int kMostTapsUnrolled = 16;

struct Emitter {
  const LfilterKernel& kernel;
  KernelWriter& w;
  std::string t;

  void unrolled() {
    if (kernel.seq <= kLongestUnrolled) w.line("#pragma unroll");
  }

  // Neighbouring threads read neighbouring samples, from where the tile begins, since a wave's
  // access is then whole segments; stretches are read from shared memory.
  void load_tile() {
    w.stmt("  for (int i = tid; i < TILE; i += NTH)");
    w.stmt("    xs[SHP(HEAD + i)] = base + i < n ? x[row * n + base + i] : ($)0;", t);
    w.stmt("  for (int i = tid; i < HEAD; i += NTH) {");
    w.stmt("    I64 at = base - HEAD + i;");
    w.stmt("    xs[SHP(i)] = at >= 0 ? x[row * n + at] : hzi ? xh[row * HEAD + HEAD + at] : ($)0;",
           t);
    w.stmt("  }");
    w.barrier();
  }

  void feedforward() {
    w.stmt("  double f[NSEQ];");
    unrolled();
    w.stmt("  for (int i = 0; i < NSEQ; ++i) f[i] = 0;");
    // Then a sample that several outputs need is read once: all places are constants.
    if (kernel.m1 <= kMostTapsUnrolled) unrolled();
    w.stmt("  for (int m = 0; m < MT; ++m) {");
    w.stmt("    double tap = cf[m];");
    unrolled();
    w.stmt("    for (int i = 0; i < NSEQ; ++i) f[i] += tap * (double)own[SHP(HEAD + i - m)];");
    w.stmt("  }");
  }

  void state_from_history() {
    w.stmt("double c[PP];  // the state at the tile's begin, in every thread");
    w.stmt("for (int r = 0; r < PP; ++r) {");
    w.stmt("  double h = 0, l = 0;");
    w.stmt("  if (hzi) for (int q = 0; q <= r; ++q)");
    w.stmt("    add_product(h, l, cf[BASIS + r * PP + q], 0, (double)zy[row * PP + q], 0);");
    w.stmt("  c[r] = h;");
    w.stmt("}");
  }

  // What this stretch leaves behind if nothing came before it.
  void own_state() {
    w.stmt("  double st[PP];");
    w.stmt("  {");
    w.stmt("    double sum[PP];  // lives in registers, as st does not on every device");
    w.stmt("    for (int r = 0; r < PP; ++r) sum[r] = 0;");
    unrolled();
    w.stmt("    for (int i = 0; i < NSEQ; ++i)");
    w.stmt("      for (int r = 0; r < PP; ++r) sum[r] += cf[RESPONSE + i * PP + r] * f[i];");
    w.stmt("    if (tid == 0) for (int q = 0; q < PP; ++q)");
    w.stmt("      for (int r = 0; r < PP; ++r) sum[r] += cf[POWERS + q * PP + r] * c[q];");
    w.stmt("    for (int r = 0; r < PP; ++r) st[r] = sum[r];");
    w.stmt("  }");
    w.barrier();
  }

  void scan() {
    w.stmt("  for (int k = 0; k < PP; ++k) sv[k * NTH + tid] = st[k];");
    w.barrier();
    w.stmt("  double* from = sv; double* to = sv + PP * NTH;");
    w.stmt("  for (int j = 0, stride = 1; stride < NTH; ++j, stride <<= 1) {");
    w.line("      // a state from `stride` stretches back has gone NSEQ 2^j samples since");
    w.stmt("    if (tid >= stride) {");
    w.stmt("      double sum[PP];");
    w.stmt("      for (int r = 0; r < PP; ++r) sum[r] = st[r];");
    w.stmt("      for (int q = 0; q < PP; ++q) {");
    w.stmt("        double s = from[q * NTH + tid - stride];");
    w.stmt(
        "        for (int r = 0; r < PP; ++r) sum[r] += cf[POWERS + (j * PP + q) * PP + r] * s;");
    w.stmt("      }");
    w.stmt("      for (int r = 0; r < PP; ++r) st[r] = sum[r];");
    w.stmt("    }");
    w.stmt("    for (int k = 0; k < PP; ++k) to[k * NTH + tid] = st[k];");
    w.barrier();
    w.stmt("    double* swap = from; from = to; to = swap;");
    w.stmt("  }");
    w.line(
        "    // this stretch begins where the one before has ended, the tile's first at the carry");
    w.stmt("  for (int k = 0; k < PP; ++k) st[k] = tid == 0 ? c[k] : from[k * NTH + tid - 1];");
    w.stmt("  for (int k = 0; k < PP; ++k) c[k] = from[k * NTH + NTH - 1];");
  }

  // From the scan's basis to the outputs before this stretch, from the oldest on in place: each
  // needs the components up to its own. In double what rounding would lose of an output goes on to
  // the outputs that it acts on.
  void outputs_before() {
    const bool exact = kernel.prec == kDouble;
    if (exact) w.stmt("  double lost[PP];");
    w.line("#pragma unroll");
    w.stmt("  for (int r = PP - 1; r >= 0; --r) {");
    w.stmt("    double h = 0$;", exact ? ", l = 0" : "");
    if (exact) {
      w.stmt("    for (int q = 0; q <= r; ++q)");
      w.stmt(
          "      add_product(h, l, cf[INVERSE + r * PP + q], cf[INVERSE + (PP + r) * PP + q], "
          "st[q], 0);");
      w.stmt("    lost[r] = l;");
    } else {
      w.stmt("    for (int q = 0; q <= r; ++q) h += cf[INVERSE + r * PP + q] * st[q];");
    }
    w.stmt("    st[r] = h;");
    w.stmt("  }");
    if (!exact) return;
    w.line("#pragma unroll");
    w.stmt("  for (int i = 0; i < PP && i < NSEQ; ++i)");
    w.stmt("    for (int j = i; j < PP; ++j) f[i] -= cf[MT + j] * lost[j - i];");
  }

  // The oldest value first: only the last product waits for the sample before.
  void recursion() {
    if (kernel.p > 0) {
      w.stmt("  double past[PP];");
      w.stmt("  for (int k = 0; k < PP; ++k) past[k] = st[k];");
    }
    unrolled();
    w.stmt("  for (int i = 0; i < NSEQ; ++i) {");
    w.stmt("    double yn = f[i];");
    if (kernel.p > 0) {
      w.stmt("    for (int j = PP - 1; j >= 0; --j) yn -= cf[MT + j] * past[j];");
      w.stmt("    for (int k = PP - 1; k > 0; --k) past[k] = past[k - 1];");
      w.stmt("    past[0] = yn;");
    }
    w.stmt("    own[SHP(i)] = ($)yn;", t);
    w.stmt("  }");
  }

  void store_tile() {
    w.barrier();
    w.stmt("  for (int i = tid; i < TILE; i += NTH)");
    w.stmt("    if (base + i < n) y[row * n + base + i] = xs[SHP(i)];");
    w.barrier();
  }

  void body() {
    const bool feedback = kernel.p > 0;
    w.stmt("$* xs = ($*)smem;", t, t);
    w.stmt("int tid = $;", w.backend.thread_index());
    w.stmt("I64 row = (I64)$;", w.backend.block_index_x());
    w.stmt("$* own = xs + tid * SHP(NSEQ);  // this thread's stretch, behind the head", t);
    if (feedback) {
      w.stmt("double* sv = (double*)smem;  // where the tile stands while it is not needed");
      state_from_history();
    }
    w.stmt("for (I64 base = 0; base < n; base += TILE) {");
    load_tile();
    feedforward();
    if (feedback) {
      own_state();
      scan();
      outputs_before();
    }
    w.barrier();
    recursion();
    store_tile();
    w.stmt("}");
  }
};

}  // namespace

std::string LfilterKernel::key() const {
  std::string key = "lfilter2";
  for (const int part : {p, m1, prec, threads, seq}) key += "_" + std::to_string(part);
  return key;
}

int LfilterKernel::rounds() const {
  return std::bit_width(static_cast<unsigned>(threads)) - 1;
}

size_t LfilterKernel::shared_bytes() const {
  const size_t samples = static_cast<size_t>(threads) * seq + m1 - 1;
  const size_t tile = (samples + (padded() ? samples / 16 : 0)) * (prec == kDouble ? 8 : 4);
  return std::max(tile, size_t{2} * 8 * p * threads);
}

std::string LfilterKernel::source(const Backend& backend) const {
  const std::string t = backend.scalar_type(prec);
  const LfilterBasisKernel block = basis();
  KernelWriter w(kDouble, backend);
  Emitter{*this, w, t}.body();
  return i64_prelude(backend) +
         format(
             "#define PP $\n"
             "#define MT $\n"
             "#define NSEQ $\n"
             "#define NTH $\n"
             "#define RESPONSE $\n"
             "#define POWERS $\n"
             "#define INVERSE $\n"
             "#define BASIS $\n"
             "#define TILE (NTH * NSEQ)\n"
             "#define HEAD (MT - 1)\n",
             {std::to_string(p), std::to_string(m1), std::to_string(seq), std::to_string(threads),
              std::to_string(block.response()), std::to_string(block.powers()),
              std::to_string(block.inverse()), std::to_string(block.basis())}) +
         (p > 0 ? pair_arithmetic(backend) : "") + shp_define(padded()) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "x")
             .add_pointer(t, "y")
             .add_const_pointer("double", "cf")
             .add_const_pointer(t, "xh")
             .add_const_pointer(t, "zy")
             .add_scalar("I64", "n")
             .add_scalar("int", "hzi")
             .set_shared("char", "smem")
             .set_launch_bounds(threads, -1)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
