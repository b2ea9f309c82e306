#include "codegen/kernels/mel.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/sizes.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

std::string head(const MelKernel& kernel, const Backend& backend) {
  const StftConfig& s = kernel.config;
  return KernelSignature(MelKernel::kName, backend)
      .add_const_pointer(backend.scalar_type(s.in_prec), "y")
      .add_pointer(backend.scalar_type(s.out_prec), "mel")
      .add_const_pointer("cplx", "tw")
      .add_const_pointer(backend.scalar_type(s.prec), "win")
      .add_const_pointer("int", "fb_lo")
      .add_const_pointer("int", "fb_off")
      .add_const_pointer(backend.scalar_type(band_precision(s)), "fb_w")
      .add_scalar("int", "NFRAMES")
      .add_scalar("int", "SIG_LEN")
      .set_launch_bounds(kernel.block(), 0)
      .set_shared("cplx", "sh_all")
      .head();
}

// The power spectra stand behind all that the transforms use: one a frame, two for a pair.
void emit_power_area(KernelWriter& w, const StftConfig& s) {
  const std::string pointer =
      w.backend.shared_pointer_type(w.backend.scalar_type(band_precision(s)));
  const std::string area = format(
      "($)(sh_all + $)", {pointer, std::to_string(frame_shared_bytes(s) / complex_bytes(s.prec))});
  if (s.pair) {
    w.stmt("$ powA = $;", pointer, area);
    w.stmt("$ powB = powA + NB;", pointer);
  } else if (s.core == StftCore::kMixed) {
    w.stmt("$ powb = $;", pointer, area);
  } else {
    w.stmt("$ powb = $ + f_local * NB;", pointer, area);
  }
}

void emit_powers(KernelWriter& w, const StftConfig& s) {
  const int form = s.power == 1 ? kMagnitudeForm : kPowerForm;
  const auto store_at = [&w, &s, form](const char* row) {
    return [&w, &s, form, row](const std::string& k, const std::string& re, const std::string& im) {
      emit_output_element(w, form, band_precision(s), format("$[$]", {row, k}), re, im);
    };
  };
  if (s.pair) return emit_pair_bins(w, s, store_at("powA"), store_at("powB"));
  w.if_block("frame < NFRAMES", [&] { emit_bins(w, s, store_at("powb")); });
}

void emit_frame_bands(KernelWriter& w, const StftConfig& s, const std::string& frame,
                      const std::string& powers) {
  w.if_block(frame + " < NFRAMES", [&] {
    w.stmt("I64 mb = ((I64)batch*NFRAMES + $) * NMELS;", frame);
    emit_bands(w, s, powers, [&](const std::string& m, const std::string& acc) {
      w.stmt("mel[mb + $] = $;", m,
             w.backend.convert_scalar(s.out_prec, band_value(w, s.form, acc)));
    });
  });
}

// acc: the sum over i below `len` of two elements' product, `weight` and `power` being texts with a
// `$` for what stands behind i. One running sum would round a thousand times over wide bands, and
// every addition would wait for the one before.
void emit_weighted_sum(KernelWriter& w, const std::string& type, const std::string& weight,
                       const std::string& power) {
  constexpr int kSums = 4;
  const auto add = [&](int sum, int step) {
    const std::string place = std::to_string(step);
    w.stmt("acc$ += $ * $;", sum, format(weight.c_str(), {place}), format(power.c_str(), {place}));
  };
  for (int s = 0; s < kSums; ++s) w.stmt("$ acc$ = ($)0;", type, s, type);
  w.stmt("int i = 0;");
  w.stmt("for (; i + $ < len; i += $) {", kSums - 1, kSums);
  for (int s = 0; s < kSums; ++s) add(s, s);
  w.stmt("}");
  w.stmt("for (; i < len; ++i) {");
  add(0, 0);
  w.stmt("}");
  w.stmt("$ acc = (acc0 + acc1) + (acc2 + acc3);", type);
}

}  // namespace

StftConfig route_mel(const StftRequest& request, int n_mels, int power, const ShapeHint& hint,
                     int64_t cap) {
  StftConfig s = route_stft(request, hint, cap);
  s.n_mels = n_mels;
  s.power = power;
  if (s.core == StftCore::kFourStep) return s;
  const auto fits = [&] { return static_cast<int64_t>(MelKernel{s}.shared_bytes()) <= cap; };
  while (s.fpb > 1 && !fits()) --s.fpb;
  if (!fits()) s.core = StftCore::kFourStep;
  return s;
}

int band_precision(const StftConfig& config) {
  return compute_precision(config.prec);
}

std::string MelKernel::key() const {
  return frame_key("raw_mel", config) +
         format("_$_$", {std::to_string(config.n_mels), std::to_string(config.power)}) +
         eps_key(config.form, config.eps);
}

size_t MelKernel::shared_bytes() const {
  const size_t bins = config.n_fft / 2 + 1;
  const size_t frames = config.pair ? 2 : config.fpb;
  return frame_shared_bytes(config) + frames * bins * complex_bytes(band_precision(config)) / 2;
}

std::string band_value(const KernelWriter& w, int form, const std::string& acc) {
  if (form == kMagnitudeForm) return w.sqrt_of(acc);
  if (form != kDecibelForm) return acc;
  return w.prec == kDouble ? "((double)10*log10(" + acc + " + (double)EPS))"
                           : "((float)10*" + w.backend.log10_call(acc + " + (float)EPS") + ")";
}

void emit_bands(KernelWriter& w, const StftConfig& config, const std::string& powers,
                const BandSink& sink) {
  const std::string type = w.backend.scalar_type(band_precision(config));
  w.for_loop("m", "tid", "NMELS", "TPF", [&](const std::string& m) {
    w.stmt("int off = fb_off[$], len = fb_off[$+1] - off, lo = fb_lo[$];", m, m, m);
    emit_weighted_sum(w, type, "fb_w[off+i+$]", powers + "[lo+i+$]");
    sink(m, "acc");
  });
}

std::string mel_source(const MelKernel& kernel, const Backend& backend) {
  const StftConfig& s = kernel.config;
  KernelWriter w(s.prec, backend);
  emit_frame_map(w, s);
  emit_power_area(w, s);
  emit_frame_transform(w, s);
  w.line("  // split into bins; what the bank is applied to stays in shared memory");
  emit_powers(w, s);
  // Outside every guard: a block's frames past NFRAMES must not keep the others waiting.
  w.barrier();
  w.line("  // the bands");
  if (s.pair) {
    emit_frame_bands(w, s, "fA", "powA");
    emit_frame_bands(w, s, "fB", "powB");
  } else {
    emit_frame_bands(w, s, "frame", "powb");
  }
  return frame_title(s) + frame_prelude(backend, s) + frame_defines(s) +
         format("#define NMELS $\n", {std::to_string(s.n_mels)}) + eps_define(s.form, s.eps) +
         head(kernel, backend) + w.str() + "}\n";
}

std::string BandKernel::key() const {
  return format("cmelred_$_$_$_$_m$",
                {std::to_string(bins), std::to_string(n_mels), std::to_string(compute),
                 std::to_string(storage), std::to_string(form)}) +
         eps_key(form, eps);
}

std::string band_source(const BandKernel& kernel, const Backend& backend) {
  const std::string type = backend.scalar_type(kernel.compute);
  const std::string head = KernelSignature(BandKernel::kName, backend)
                               .add_const_pointer(type, "P")
                               .add_pointer(backend.scalar_type(kernel.storage), "mel")
                               .add_const_pointer("int", "lo")
                               .add_const_pointer("int", "off")
                               .add_const_pointer(type, "w")
                               .add_scalar("I64", "row0")
                               .set_launch_bounds(BandKernel::kBlock, 0)
                               .head();

  KernelWriter w(kernel.compute, backend);
  flat_row_index(w, "m", std::to_string(kernel.n_mels));
  w.stmt("row += row0;");
  w.stmt("const DEV $* pb = P + row * $;", type, kernel.bins);
  w.stmt("int j0 = off[m], len = off[m + 1] - j0, l0 = lo[m];");
  emit_weighted_sum(w, type, "w[j0+i+$]", "pb[l0+i+$]");
  w.stmt("mel[row * $ + m] = $;", kernel.n_mels,
         backend.convert_scalar(kernel.storage, band_value(w, kernel.form, "acc")));
  return backend.source_preamble(kernel.storage == kHalf ? kHalf : kernel.compute) +
         i64_prelude(backend) + eps_define(kernel.form, kernel.eps) + head + w.str() + "}\n";
}

}  // namespace kevra::codegen
