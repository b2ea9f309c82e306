#include "codegen/kernels/contrast.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

std::string type_of(const KernelWriter& w) {
  return w.backend.scalar_type(w.prec);
}

void emit_band(KernelWriter& w) {
  w.stmt("int lo = bt[band], nin = bt[band + 1] - lo, q = bq[band];");
}

// r: the contrast of the means pv and vv, which it may raise to amin.
void emit_contrast(KernelWriter& w, const std::string& linear) {
  const std::string t = type_of(w);
  w.stmt("$ r;", t);
  w.stmt("if ($) { r = pv - vv; } else {", linear);
  w.stmt("if (pv < amin) pv = amin;");
  w.stmt("if (vv < amin) vv = amin;");
  w.line("  // 10 / ln 10");
  w.stmt("r = ($)4.342944819032518 * ($ - $);", t, w.log_of("pv"), w.log_of("vv"));
  w.stmt("}");
}

// Pairs t of a pass: i and i + j, i being t with a 0 put in where j has its bit.
void emit_sort(KernelWriter& w, const std::string& threads) {
  w.stmt("for (int kk = 2; kk <= pad; kk <<= 1) {");
  w.stmt("for (int j = kk >> 1; j > 0; j >>= 1) {");
  w.stmt("for (int t = tid; t < pad / 2; t += $) {", threads);
  w.stmt("int i = 2 * t - (t & (j - 1)), ix = i + j;");
  w.stmt("$ a = vals[i], c = vals[ix];", type_of(w));
  w.stmt("bool sw = (i & kk) != 0 ? (a < c) : (a > c);");
  w.stmt("if (sw) { vals[i] = c; vals[ix] = a; }");
  w.stmt("}");
  w.barrier();
  w.stmt("}");
  w.stmt("}");
}

std::string row_base(const KernelWriter& w) {
  return format("I64 base = (I64)$ * n;", {w.backend.block_index_x()});
}
std::string row_destination(const KernelWriter& w) {
  return format("out[(I64)$ * nbands + band]", {w.backend.block_index_x()});
}

void emit_sort_kernel(KernelWriter& w, int storage) {
  const std::string shared = w.backend.shared_pointer_type(type_of(w));
  w.stmt("$ vals = ($)smem;", shared, shared);
  w.stmt("int tid = $;", w.backend.thread_index());
  w.stmt("int band = $;", w.backend.block_index_y());
  w.stmt("$", row_base(w));
  emit_sorted_contrast(w, {.threads = std::to_string(ContrastKernel::kBlock),
                           .value = format("($)M[base + lo + i]", {type_of(w)}),
                           .linear = "linear",
                           .first = "tid == 0",
                           .destination = row_destination(w),
                           .storage = storage});
}

// --- By histograms. In float throughout: what a level is wide exceeds its rounding by far. ---

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
  w.stmt("for (int i = tid; i < nin; i += $) {", ContrastKernel::kBlock);
  w.stmt("float v = (float)M[base + lo + i];");
  body();
  w.stmt("}");
}

// red[0]: `value` of all threads, joined pairwise by `join`, which has s2 between the two.
void emit_tree(KernelWriter& w, const char* value, const char* join) {
  w.stmt("red[tid] = $;", value);
  w.barrier();
  w.stmt("for (int s2 = $; s2 > 0; s2 >>= 1) {", ContrastKernel::kBlock / 2);
  w.stmt("if ($;", join);
  w.barrier();
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

// thr and cnt of a side: the level of the q-th element from that end of the range, and how many
// stand at lower levels.
void emit_threshold(KernelWriter& w, int side, const std::string& u) {
  w.stmt("int thr$, cnt$;", side, side);
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
  });
  w.barrier();
  w.stmt("thr$ = shi[2]; cnt$ = shi[3];", side, side);
  w.stmt("}");
}

// pv, vv: what stands below the threshold counts as it is, its ties as the middle of their level.
void emit_histogram_means(KernelWriter& w) {
  const std::string t = type_of(w);
  w.stmt("float step = rng / 65536.0f;");
  w.stmt("float vlo = shf[3] + (q - cnt0) * (mn + (thr0 + 0.5f) * step);");
  w.stmt("float phi = red[0] + (q - cnt1) * (mx - (thr1 + 0.5f) * step);");
  w.stmt("$ vv = ($)(vlo / q), pv = ($)(phi / q);", t, t, t);
}

void emit_histogram_kernel(KernelWriter& w, int storage) {
  w.stmt("TG float* red = (TG float*)smem;");
  w.stmt("TG int* hist = (TG int*)(smem + 256 * 4);");
  w.stmt("TG float* shf = (TG float*)(smem + 512 * 4);");
  w.stmt("TG int* shi = (TG int*)(smem + 520 * 4);");
  w.stmt("int tid = $;", w.backend.thread_index());
  w.stmt("int band = $;", w.backend.block_index_y());
  w.stmt("$", row_base(w));
  emit_band(w);
  emit_range(w);
  const std::string destination = row_destination(w);
  w.line("  // the whole block leaves, or no thread of it");
  w.if_block("rng <= 0.0f", [&] {
    w.stmt("if (tid == 0) $ = $;", destination, w.backend.convert_scalar(storage, "0"));
    w.stmt("return;");
  });
  emit_threshold(w, 0, "v - mn");
  emit_threshold(w, 1, "mx - v");
  w.stmt("float s0 = 0.0f, s1 = 0.0f;");
  each_of_band(w, [&] {
    w.stmt("if (level(v - mn, rng) < thr0) s0 += v;");
    w.stmt("if (level(mx - v, rng) < thr1) s1 += v;");
  });
  emit_tree(w, "s0", "tid < s2) red[tid] += red[tid + s2]");
  w.stmt("if (tid == 0) shf[3] = red[0];");
  emit_tree(w, "s1", "tid < s2) red[tid] += red[tid + s2]");
  w.if_block("tid == 0", [&] {
    emit_histogram_means(w);
    emit_contrast(w, "linear");
    w.stmt("$ = $;", destination, w.backend.convert_scalar(storage, "r"));
  });
}

}  // namespace

void emit_sorted_contrast(KernelWriter& w, const BandRow& row) {
  const std::string t = type_of(w);
  emit_band(w);
  w.stmt("int pad = 1; while (pad < nin) pad <<= 1;");
  w.line("  // what fills up sorts to the end, where no mean looks");
  w.stmt("for (int i = tid; i < pad; i += $) vals[i] = i < nin ? $ : $;", row.threads, row.value,
         w.prec == kDouble ? "(double)1e308" : "3.0e38f");
  w.barrier();
  emit_sort(w, row.threads);
  w.if_block(row.first, [&] {
    w.stmt("$ pv = ($)0, vv = ($)0;", t, t, t);
    w.stmt("for (int i = 0; i < q; ++i) vv += vals[i];");
    w.stmt("for (int i = nin - q; i < nin; ++i) pv += vals[i];");
    w.stmt("pv /= ($)q; vv /= ($)q;", t, t);
    emit_contrast(w, row.linear);
    w.stmt("$ = $;", row.destination, w.backend.convert_scalar(row.storage, "r"));
  });
}

ContrastKernel ContrastKernel::chosen(int prec, int64_t band_pad, int64_t limit) {
  const ContrastKernel sort{prec, false};
  return sort.sort_bytes(band_pad) <= limit ? sort : ContrastKernel{prec, true};
}

std::string ContrastKernel::key() const {
  return format("contrast$_$_$", {histogram ? "g" : "", std::to_string(storage_precision(prec)),
                                  std::to_string(compute_precision(prec))});
}

std::string ContrastKernel::source(const Backend& backend) const {
  const int storage = storage_precision(prec);
  KernelWriter w(compute_precision(prec), backend);
  histogram ? emit_histogram_kernel(w, storage) : emit_sort_kernel(w, storage);
  const std::string type = backend.scalar_type(storage);
  return backend.source_preamble(storage) + i64_prelude(backend) +
         (histogram ? level_function(backend) : "") +
         KernelSignature(name(), backend)
             .add_const_pointer(type, "M")
             .add_pointer(type, "out")
             .add_const_pointer("int", "bt")
             .add_const_pointer("int", "bq")
             .add_scalar("I64", "n")
             .add_scalar("int", "nbands")
             .add_scalar(backend.scalar_type(w.prec), "amin")
             .add_scalar("int", "linear")
             .set_shared("char", "smem")
             .set_launch_bounds(kBlock, 0)
             .head() +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
