#include "codegen/kernels/mel.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernels/matrix_product.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/sizes.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

std::string head(const MelKernel& kernel, const Backend& backend) {
  const StftConfig& s = kernel.config;
  KernelSignature signature(MelKernel::kName, backend);
  signature.add_const_pointer(backend.scalar_type(s.in_prec), "y")
      .add_pointer(backend.scalar_type(s.out_prec), "mel")
      .add_const_pointer("cplx", "tw")
      .add_const_pointer(backend.scalar_type(s.prec), "win")
      .add_const_pointer("int", "fb_lo")
      .add_const_pointer("int", "fb_off")
      .add_const_pointer(backend.scalar_type(band_precision(s)), "fb_w")
      .add_scalar("int", "NFRAMES")
      .add_scalar("int", "SIG_LEN")
      .set_launch_bounds(kernel.block(), 0)
      .set_shared("cplx", "sh_all");
  if (s.ncep > 0) signature.add_const_pointer(backend.scalar_type(s.prec), "D");
  return signature.head();
}

// The power spectra stand behind all that the transforms use: one a frame, two for a pair. Behind
// those stand the bands that do not leave the block.
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
  if (s.ncep > 0) w.stmt("$ bandb = $ + F * NB + f_local * NMELS;", pointer, area);
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

// The form of output of a band whose weighted sum is `acc`.
std::string band_value(const KernelWriter& w, int form) {
  if (form == kMagnitudeForm) return w.sqrt_of("acc");
  if (form != kDecibelForm) return "acc";
  return w.prec == kDouble ? "((double)10*log10(acc + (double)EPS))"
                           : "((float)10*" + w.backend.log10_call("acc + (float)EPS") + ")";
}

// Every band of a frame once, by the frame's threads, from the NB values of `powers`.
void emit_frame_bands(KernelWriter& w, const StftConfig& s, const std::string& frame,
                      const std::string& powers) {
  w.if_block(frame + " < NFRAMES", [&] {
    const bool stay = s.ncep > 0;
    if (!stay) w.stmt("I64 mb = ((I64)batch*NFRAMES + $) * NMELS;", frame);
    w.for_loop("m", "tid", "NMELS", "TPF", [&](const std::string& m) {
      w.stmt("int off = fb_off[$], len = fb_off[$+1] - off, lo = fb_lo[$];", m, m, m);
      emit_weighted_sum(w, w.backend.scalar_type(band_precision(s)), "len", "fb_w[off+i+$]",
                        powers + "[lo+i+$]");
      w.stmt("$[$] = $;", stay ? "bandb" : "mel", stay ? m : "mb + " + m,
             w.backend.convert_scalar(s.out_prec, band_value(w, s.form)));
    });
  });
}

void emit_cepstra(KernelWriter& w, const StftConfig& s) {
  w.line("  // the cepstra: a coefficient reads all bands of its frame");
  w.barrier();
  w.if_block("frame < NFRAMES", [&] {
    w.stmt("I64 ob = ((I64)batch*NFRAMES + frame) * NCEP;");
    w.for_loop("c", "tid", "NCEP", "TPF", [&](const std::string& c) {
      emit_weighted_sum(w, w.backend.scalar_type(s.prec), "NMELS", "D[(I64)" + c + "*NMELS+i+$]",
                        "bandb[i+$]");
      w.stmt("mel[ob + $] = acc;", c);
    });
  });
}

}  // namespace

StftConfig route_mel(const StftRequest& request, const BandShape& bands, const ShapeHint& hint,
                     int64_t cap) {
  StftConfig s = route_stft(request, hint, cap);
  s.n_mels = bands.n_mels;
  s.power = bands.power;
  s.ncep = bands.n_cepstra;
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
  return frame_key(config.ncep > 0 ? "raw_cepf" : "raw_mel", config) +
         format("_$_$_$", {std::to_string(config.n_mels), std::to_string(config.power),
                           std::to_string(config.ncep)}) +
         eps_key(config.form, config.eps);
}

size_t MelKernel::shared_bytes() const {
  const size_t bins = config.n_fft / 2 + 1;
  const size_t frames = config.pair ? 2 : config.fpb;
  const size_t bands = config.ncep > 0 ? config.n_mels : 0;
  return frame_shared_bytes(config) +
         frames * (bins + bands) * complex_bytes(band_precision(config)) / 2;
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
  if (s.ncep > 0) emit_cepstra(w, s);
  const std::string cepstra =
      s.ncep > 0 ? format("#define NCEP $\n", {std::to_string(s.ncep)}) : "";
  return frame_title(s) + frame_prelude(backend, s) + frame_defines(s) +
         format("#define NMELS $\n", {std::to_string(s.n_mels)}) + cepstra +
         eps_define(s.form, s.eps) + head(kernel, backend) + w.str() + "}\n";
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
  emit_weighted_sum(w, type, "len", "w[j0+i+$]", "pb[l0+i+$]");
  w.stmt("mel[row * $ + m] = $;", kernel.n_mels,
         backend.convert_scalar(kernel.storage, band_value(w, kernel.form)));
  return backend.source_preamble(kernel.storage == kHalf ? kHalf : kernel.compute) +
         i64_prelude(backend) + eps_define(kernel.form, kernel.eps) + head + w.str() + "}\n";
}

}  // namespace kevra::codegen
