#include "codegen/kernels/contrast.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

std::string type_of(const KernelWriter& w) {
  return w.backend.scalar_type(w.prec);
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

void emit_histogram_kernel(KernelWriter& w, int storage) {
  emit_histogram_memory(w);
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
  emit_thresholds(w, false);
  emit_sums_below(w);
  w.if_block("tid == 0", [&] {
    emit_histogram_means(w, type_of(w));
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
  emit_bitonic(w, row.threads, [&] {
    w.stmt("$ a = vals[i], c = vals[ix];", t);
    w.stmt("bool sw = (i & kk) != 0 ? (a < c) : (a > c);");
    w.stmt("if (sw) { vals[i] = c; vals[ix] = a; }");
  });
  w.if_block(row.first, [&] {
    emit_sorted_means(w);
    emit_contrast(w, row.linear);
    w.stmt("$ = $;", row.destination, w.backend.convert_scalar(row.storage, "r"));
  });
}

ContrastKernel ContrastKernel::chosen(int prec, int64_t band_pad, int64_t limit) {
  const ContrastKernel sort{prec, false};
  return sort.shared_bytes(band_pad) <= limit ? sort : ContrastKernel{prec, true};
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
