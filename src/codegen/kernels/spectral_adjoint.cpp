#include "codegen/kernels/spectral_adjoint.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/statistic.h"
#include "codegen/prelude.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {
namespace {

// With F = geo / a, the geometric over the arithmetic mean of w = max(m^2, amin):
// dF / dm = geo / (n a) (1 / w - 1 / a) 2 m, which is written with 1 / m, since m^2 may underflow.
void emit_flatness(KernelWriter& w, const StatisticRow& row, const std::string& t) {
  w.stmt("$ a = red0[0] / ($)n;", t, t);
  w.stmt("$ geo = $;", t, w.exp_of(format("red1[0] / ($)n", {t})));
  w.stmt("$ scale = ($)2 * g * geo / (($)n * a);", t, t, t);
  each_magnitude(w, row, [&] {
    w.line("  // a power below the floor has no say; nor has 0, which no floor may stand above");
    w.stmt("$ pw = v * v;", t);
    w.stmt("gM[base + i] = pw < amin || pw == 0 ? ($)0 : scale * (($)1 / v - v / a);", t, t);
  });
}

// s0, m, c: the sum of magnitudes or the floor under it, 1 or 0 as it follows them, the centroid.
void emit_centre(KernelWriter& w, const std::string& t) {
  const std::string floor = least_sum(w);
  w.stmt("$ D = red0[0];", t);
  w.stmt("$ s0 = D < $ ? $ : D;", t, floor, floor);
  w.stmt("$ m = D < $ ? ($)0 : ($)1;", t, floor, t, t);
  w.stmt("$ c = red1[0] / s0;", t);
}

void emit_centroid(KernelWriter& w, const StatisticRow& row, const std::string& t) {
  emit_centre(w, t);
  w.stmt("for (I64 i = tid; i < $; i += $)", row.count, row.threads);
  w.stmt("  gM[base + i] = g * (fstep * ($)i - c * m) / s0;", t);
}

// With B = (sum m q^p / s0)^(1/p) and q = abs(f - c), m counts by its own distance and by the
// centroid that it moves: dB / dm = B^(1-p) / p (q^p - R dc / dm - B^p) / s0, R = the sum of
// m p q^(p-1) sign(f - c).
void emit_bandwidth(KernelWriter& w, const StatisticRow& row, const std::string& t) {
  emit_centre(w, t);
  w.line("  // every thread has read the two sums before they take the next ones");
  w.barrier();
  w.stmt("bool sq = pp == ($)2;", t);
  w.stmt("$ a2 = ($)0, a3 = ($)0;", t, t, t);
  each_magnitude(w, row, [&] {
    w.stmt("$ d = fstep * ($)i - c;", t, t);
    w.stmt("$ q = d < ($)0 ? -d : d;", t, t);
    w.line("  // q^(p-1); at the centroid itself an exponent below 1 would give infinity");
    w.stmt("$ r = sq ? q : (q == ($)0 ? ($)0 : $);", t, t, t,
           w.pow_of("q", format("(pp - ($)1)", {t})));
    w.stmt("a2 += v * r * q;");
    w.stmt("a3 += v * pp * (d < ($)0 ? -r : r);", t);
  });
  w.stmt("red0[tid] = a2; red1[tid] = a3;");
  w.barrier();
  emit_halving(w, row, "red0[tid] += red0[tid + rs]; red1[tid] += red1[tid + rs];");
  w.stmt("$ bwp = red0[0] / s0, R = red1[0];", t);
  w.stmt("$ B = sq ? $ : $;", t, w.sqrt_of("bwp"), w.pow_of("bwp", format("(($)1 / pp)", {t})));
  w.line(
      "  // Silence and a single bin have no width, and its root no slope: 0. So has a width that");
  w.line(
      "  // the centroid's own rounding makes, whose slope would be nothing but that rounding's.");
  w.stmt("$ least = ($)$ * (c < ($)0 ? -c : c);", t, t, w.prec == kDouble ? "1e-15" : "5e-7", t);
  w.stmt("$ scale = B > least ? g / pp * (sq ? ($)1 / B : $) / s0 : ($)0;", t, t,
         w.pow_of("B", format("(($)1 - pp)", {t})), t);
  each_magnitude(w, row, [&] {
    w.stmt("$ d = fstep * ($)i - c;", t, t);
    w.stmt("$ q = d < ($)0 ? -d : d;", t, t);
    w.stmt("$ dc = (fstep * ($)i - c * m) / s0;", t, t);
    w.stmt("gM[base + i] = scale * ((sq ? d * d : $) - R * dc - bwp * m);", w.pow_of("q", "pp"));
  });
}

}  // namespace

std::string SpectralAdjointKernel::source(const Backend& backend) const {
  KernelWriter w(prec, backend);
  const std::string t = backend.scalar_type(prec);
  const std::string shared = backend.shared_pointer_type(t);
  const StatisticRow row{.index = "I64",
                         .count = "n",
                         .threads = std::to_string(kBlock),
                         .value = "M[base + i]",
                         .first = {},
                         .store = {}};
  w.stmt("$ red0 = ($)smem;", shared, shared);
  w.stmt("$ red1 = red0 + $;", shared, kBlock);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("I64 base = (I64)$ * n;", backend.block_index_x());
  w.stmt("$ g = gy[$];", t, backend.block_index_x());
  emit_statistic_sums(w, stat, row);
  if (stat == kFlatness) {
    emit_flatness(w, row, t);
  } else {
    stat == kCentroid ? emit_centroid(w, row, t) : emit_bandwidth(w, row, t);
  }
  return i64_prelude(backend) +
         KernelSignature(kName, backend)
             .add_const_pointer(t, "M")
             .add_const_pointer(t, "gy")
             .add_pointer(t, "gM")
             .add_scalar("I64", "n")
             .add_scalar(t, "fstep")
             .add_scalar(t, "pp")
             .add_scalar(t, "amin")
             .set_shared("char", "smem")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
