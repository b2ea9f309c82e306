#include "codegen/kernels/statistic.h"

#include "codegen/format.h"
#include "codegen/precision.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {
namespace {

std::string type_of(const KernelWriter& w) {
  return w.backend.scalar_type(w.prec);
}

// den: the sum of magnitudes, or the floor under it.
void emit_denominator(KernelWriter& w) {
  const std::string floor = least_sum(w);
  w.stmt("$ den = red0[0]; if (den < $) den = $;", type_of(w), floor, floor);
}

void emit_bandwidth(KernelWriter& w, const StatisticRow& row) {
  const std::string t = type_of(w);
  emit_denominator(w);
  w.stmt("$ cen = red1[0] / den;", t);
  w.line("  // every thread has read the two sums before red0 takes the next ones");
  w.barrier();
  w.stmt("bool sq = pp == ($)2;", t);
  w.stmt("$ a2 = ($)0;", t, t);
  each_magnitude(w, row, [&] {
    w.stmt("$ d = fstep * ($)i - cen; if (d < ($)0) d = -d;", t, t, t);
    w.stmt("a2 += v * (sq ? d * d : $);", w.pow_of("d", "pp"));
  });
  w.stmt("red0[tid] = a2;");
  w.barrier();
  emit_halving(w, row, "red0[tid] += red0[tid + rs];");
  w.if_block(row.first, [&] {
    row.store(format("sq ? $ : $", {w.sqrt_of("red0[0] / den"),
                                    w.pow_of("red0[0] / den", format("(($)1 / pp)", {t}))}));
  });
}

// A running sum has an order: one thread walks the row.
void emit_rolloff(KernelWriter& w, const StatisticRow& row) {
  const std::string t = type_of(w);
  w.if_block(row.first, [&] {
    w.stmt("$ thr = roll * red0[0], acc = ($)0;", t, t);
    w.stmt("$ i = 0;", row.index);
    w.stmt("for (; i < $; ++i) { acc += $; if (acc >= thr) break; }", row.count, row.value);
    w.stmt("if (i >= $) i = $ - 1;", row.count, row.count);
    row.store(format("fstep * ($)i", {t}));
  });
}

}  // namespace

std::string least_sum(const KernelWriter& w) {
  return w.prec == kDouble ? "(double)1e-10" : "1e-10f";
}

void each_magnitude(KernelWriter& w, const StatisticRow& row, const std::function<void()>& body) {
  w.stmt("for ($ i = tid; i < $; i += $) {", row.index, row.count, row.threads);
  w.stmt("$ v = $;", type_of(w), row.value);
  body();
  w.stmt("}");
}

void emit_halving(KernelWriter& w, const StatisticRow& row, const char* sums) {
  w.stmt("for (int rs = $ / 2; rs > 0; rs >>= 1) {", row.threads);
  w.stmt("if (tid < rs) { $ }", sums);
  w.barrier();
  w.stmt("}");
}

void emit_statistic_sums(KernelWriter& w, int stat, const StatisticRow& row) {
  const std::string t = type_of(w);
  w.stmt("$ a0 = ($)0, a1 = ($)0;", t, t, t);
  each_magnitude(w, row, [&] {
    if (stat == kFlatness) {
      w.stmt("$ pw = v * v; if (pw < amin) pw = amin;", t);
      w.stmt("a0 += pw; a1 += $;", w.log_of("pw"));
    } else {
      w.stmt("a0 += v; a1 += (fstep * ($)i) * v;", t);
    }
  });
  w.stmt("red0[tid] = a0; red1[tid] = a1;");
  w.barrier();
  emit_halving(w, row, "red0[tid] += red0[tid + rs]; red1[tid] += red1[tid + rs];");
}

void emit_statistic(KernelWriter& w, int stat, const StatisticRow& row) {
  emit_statistic_sums(w, stat, row);
  if (stat == kBandwidth) return emit_bandwidth(w, row);
  if (stat == kRolloff) return emit_rolloff(w, row);
  w.if_block(row.first, [&] {
    if (stat == kCentroid) {
      emit_denominator(w);
      return row.store("red1[0] / den");
    }
    const std::string count = format("($)$", {type_of(w), row.count});
    row.store(format("$ / (red0[0] / $)", {w.exp_of("red1[0] / " + count), count}));
  });
}

}  // namespace kevra::codegen
