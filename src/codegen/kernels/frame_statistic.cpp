#include "codegen/kernels/frame_statistic.h"

#include "codegen/format.h"
#include "codegen/kernels/contrast.h"
#include "codegen/kernels/frame_transform.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/kernels/statistic.h"
#include "codegen/sizes.h"

namespace kevra::codegen {
namespace {

constexpr const char* kFirst = "frame < NFRAMES && tid == 0";

// mag: the frame's magnitudes, at the start of its work area, which stands behind all that the
// transforms use.
void emit_magnitudes(KernelWriter& w, const StftConfig& s, const std::string& shared) {
  const size_t before = frame_shared_bytes(s) / complex_bytes(s.prec);
  w.stmt("$ mag = ($)(sh_all + $) + (I64)f_local * $;", shared, shared, static_cast<int>(before),
         statistic_row(s));
  w.line("  // split into bins; the magnitudes stay in shared memory");
  emit_bins(w, s, [&](const std::string& k, const std::string& re, const std::string& im) {
    emit_output_element(w, kMagnitudeForm, s.prec, format("mag[$]", {k}), re, im);
  });
  w.barrier();
}

void emit_frame_contrast(KernelWriter& w, const StftConfig& s, const std::string& shared) {
  w.stmt("$ vals = mag + NB;", shared);
  w.stmt("for (int band = 0; band < $; ++band) {", s.n_bands);
  emit_sorted_contrast(w, {.threads = "TPF",
                           .value = "mag[lo + i]",
                           .linear = format("roll != ($)0", {w.backend.scalar_type(s.prec)}),
                           .first = kFirst,
                           .destination = format("out[((I64)batch * NFRAMES + frame) * $ + band]",
                                                 {std::to_string(s.n_bands)}),
                           .storage = s.out_prec});
  w.line("  // the next band writes over vals");
  w.barrier();
  w.stmt("}");
}

}  // namespace

void add_band_parameters(KernelSignature& signature, const StftConfig& config) {
  if (config.stat == kContrast) {
    signature.add_const_pointer("int", "bt").add_const_pointer("int", "bq");
  }
}

void add_statistic_parameters(KernelSignature& signature, const StftConfig& config) {
  if (config.stat == kNoStatistic) return;
  const std::string type = signature.backend.scalar_type(config.prec);
  for (const char* name : {"fstep", "pp", "amin", "roll"}) signature.add_scalar(type, name);
}

void emit_frame_statistic(KernelWriter& w, const StftConfig& s) {
  const std::string shared = w.backend.shared_pointer_type(w.backend.scalar_type(s.prec));
  emit_magnitudes(w, s, shared);
  if (s.stat == kContrast) return emit_frame_contrast(w, s, shared);
  w.stmt("$ red0 = mag + NB;", shared);
  w.stmt("$ red1 = red0 + TPF;", shared);
  w.line("  // a scope of its own: the transform has names like these sums");
  w.stmt("{");
  emit_statistic(w, s.stat,
                 {.index = "int",
                  .count = "NB",
                  .threads = "TPF",
                  .value = "mag[i]",
                  .first = kFirst,
                  .store = [&](const std::string& value) {
                    w.stmt("out[(I64)batch * NFRAMES + frame] = $;",
                           w.backend.convert_scalar(s.out_prec, value));
                  }});
  w.stmt("}");
}

}  // namespace kevra::codegen
