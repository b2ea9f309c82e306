#include "codegen/kernels/band_select.h"

#include "codegen/format.h"

namespace kevra::codegen {
namespace {

// red[0]: `value` of all threads, joined pairwise by `join`, which has s2 between the two.
void emit_tree(KernelWriter& w, const char* value, const char* join) {
  w.stmt("red[tid] = $;", value);
  w.barrier();
  w.stmt("for (int s2 = $; s2 > 0; s2 >>= 1) {", kHistogramBlock / 2);
  w.stmt("if ($;", join);
  w.barrier();
  w.stmt("}");
}

// Counts the band's elements in the 256 places of hist; `condition` may leave some out.
void emit_histogram(KernelWriter& w, const std::string& u, const char* condition,
                    const char* place) {
  w.stmt("hist[tid] = 0;");
  w.barrier();
  each_of_band(w, [&] {
    w.stmt("int k = level($, rng);", u);
    w.stmt("$$", condition, w.backend.atomic_add(format("hist[$]", {place}), "1"));
  });
  w.barrier();
}

// By one thread: the place of hist that holds the q-th element, `c` counting those before it.
void emit_walk(KernelWriter& w, const char* before) {
  w.stmt("int c = $, at = 0;", before);
  w.stmt("for (; at < 255; ++at) { if (c + hist[at] > q - 1) break; c += hist[at]; }");
}

// thr, cnt and, if asked for, tie of a side.
void emit_threshold(KernelWriter& w, int side, const std::string& u, bool ties) {
  w.stmt("int thr$, cnt$;", side, side);
  if (ties) w.stmt("int tie$;", side);
  w.stmt("{");
  emit_histogram(w, u, "", "k >> 8");
  w.if_block("tid == 0", [&] {
    emit_walk(w, "0");
    w.stmt("shi[0] = at; shi[1] = c;");
  });
  w.barrier();
  w.stmt("int coarse = shi[0], below = shi[1];");
  emit_histogram(w, u, "if ((k >> 8) == coarse) ", "k & 255");
  w.if_block("tid == 0", [&] {
    emit_walk(w, "below");
    w.stmt("shi[2] = coarse * 256 + at; shi[3] = c;");
    if (ties) w.stmt("shi[4] = hist[at];");
  });
  w.barrier();
  w.stmt("thr$ = shi[2]; cnt$ = shi[3];", side, side);
  if (ties) w.stmt("tie$ = shi[4];", side);
  w.stmt("}");
}

}  // namespace

void emit_band(KernelWriter& w) {
  w.stmt("int lo = bt[band], nin = bt[band + 1] - lo, q = bq[band];");
}

// Pairs t of a pass: i and i + j, i being t with a 0 put in where j has its bit.
void emit_bitonic(KernelWriter& w, const std::string& threads, const std::function<void()>& pair) {
  w.stmt("for (int kk = 2; kk <= pad; kk <<= 1) {");
  w.stmt("for (int j = kk >> 1; j > 0; j >>= 1) {");
  w.stmt("for (int t = tid; t < pad / 2; t += $) {", threads);
  w.stmt("int i = 2 * t - (t & (j - 1)), ix = i + j;");
  pair();
  w.stmt("}");
  w.barrier();
  w.stmt("}");
  w.stmt("}");
}

void emit_sorted_means(KernelWriter& w) {
  const std::string t = w.backend.scalar_type(w.prec);
  w.stmt("$ pv = ($)0, vv = ($)0;", t, t, t);
  w.stmt("for (int i = 0; i < q; ++i) vv += vals[i];");
  w.stmt("for (int i = nin - q; i < nin; ++i) pv += vals[i];");
  w.stmt("pv /= ($)q; vv /= ($)q;", t, t);
}

// level(u, range): u in 65536 steps of the range. Whole numbers, so that the passes agree about
// every element; NaN, which an infinite magnitude makes, counts as the last.
std::string level_function(const Backend& backend) {
  return backend.device_inline() +
         "int level(float u, float range) {\n"
         "  float at = u / range * 65536.0f;\n"
         "  return at < 65535.0f ? (int)at : 65535;\n"
         "}\n";
}

void each_of_band(KernelWriter& w, const std::function<void()>& body) {
  w.stmt("for (int i = tid; i < nin; i += $) {", kHistogramBlock);
  w.stmt("float v = (float)M[base + lo + i];");
  body();
  w.stmt("}");
}

void emit_range(KernelWriter& w) {
  w.stmt("float mn = 3.0e38f, mx = -3.0e38f;");
  each_of_band(w, [&] { w.stmt("if (v < mn) mn = v; if (v > mx) mx = v;"); });
  emit_tree(w, "mn", "tid < s2 && red[tid + s2] < red[tid]) red[tid] = red[tid + s2]");
  w.stmt("if (tid == 0) shf[0] = red[0];");
  emit_tree(w, "mx", "tid < s2 && red[tid + s2] > red[tid]) red[tid] = red[tid + s2]");
  w.stmt("if (tid == 0) shf[1] = red[0];");
  w.barrier();
  w.stmt("mn = shf[0]; mx = shf[1];");
  w.stmt("float rng = mx - mn;");
}

void emit_histogram_memory(KernelWriter& w) {
  w.stmt("TG float* red = (TG float*)smem;");
  w.stmt("TG int* hist = (TG int*)(smem + 256 * 4);");
  w.stmt("TG float* shf = (TG float*)(smem + 512 * 4);");
  w.stmt("TG int* shi = (TG int*)(smem + 520 * 4);");
}

void emit_thresholds(KernelWriter& w, bool ties) {
  emit_threshold(w, 0, "v - mn", ties);
  emit_threshold(w, 1, "mx - v", ties);
}

void emit_sums_below(KernelWriter& w) {
  w.stmt("float s0 = 0.0f, s1 = 0.0f;");
  each_of_band(w, [&] {
    w.stmt("if (level(v - mn, rng) < thr0) s0 += v;");
    w.stmt("if (level(mx - v, rng) < thr1) s1 += v;");
  });
  emit_tree(w, "s0", "tid < s2) red[tid] += red[tid + s2]");
  w.stmt("if (tid == 0) shf[3] = red[0];");
  emit_tree(w, "s1", "tid < s2) red[tid] += red[tid + s2]");
}

void emit_histogram_means(KernelWriter& w, const std::string& type) {
  w.stmt("float step = rng / 65536.0f;");
  w.stmt("float vlo = shf[3] + (q - cnt0) * (mn + (thr0 + 0.5f) * step);");
  w.stmt("float phi = red[0] + (q - cnt1) * (mx - (thr1 + 0.5f) * step);");
  w.stmt("$ vv = ($)(vlo / q), pv = ($)(phi / q);", type, type, type);
}

}  // namespace kevra::codegen
