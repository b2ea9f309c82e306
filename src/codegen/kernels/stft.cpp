#include "codegen/kernels/stft.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/frame_statistic.h"
#include "codegen/kernels/frame_transform.h"
#include "codegen/kernels/spectrum_output.h"

namespace kevra::codegen {
namespace {

std::string head(const StftKernel& kernel, const Backend& backend) {
  const StftConfig& s = kernel.config;
  KernelSignature signature(StftKernel::kName, backend);
  signature.add_const_pointer(backend.scalar_type(s.in_prec), "y")
      .add_pointer(output_type(backend, s.form, s.out_prec), "out")
      .add_const_pointer("cplx", "tw")
      .add_const_pointer(backend.scalar_type(s.prec), "win");
  add_band_parameters(signature, s);
  signature.add_scalar("int", "NFRAMES").add_scalar("int", "SIG_LEN");
  add_statistic_parameters(signature, s);
  return signature.set_launch_bounds(kernel.block(), 0).set_shared("cplx", "sh_all").head();
}

void emit_spectra(KernelWriter& w, const StftConfig& s) {
  w.line("  // split into bins and store");
  const auto store_at = [&](const char* row) {
    return [&w, &s, row](const std::string& k, const std::string& re, const std::string& im) {
      emit_output_element(w, s.form, s.out_prec, format("out[$ + $]", {row, k}), re, im);
    };
  };
  if (s.pair) {
    w.stmt("I64 obA = ((I64)batch*NFRAMES + fA) * NB;");
    w.stmt("I64 obB = ((I64)batch*NFRAMES + fB) * NB;");
    emit_pair_bins(w, s, store_at("obA"), store_at("obB"));
    return;
  }
  w.if_block("frame < NFRAMES", [&] {
    w.stmt("I64 ob = ((I64)batch*NFRAMES + frame) * NB;");
    emit_bins(w, s, store_at("ob"));
  });
}

}  // namespace

std::string StftKernel::key() const {
  const auto joined = [](std::string text, int field) {
    return text + "_" + std::to_string(field);
  };
  if (config.stat == kNoStatistic) {
    return frame_key("raw_stft", config) + eps_key(config.form, config.eps);
  }
  if (config.stat != kContrast) return joined(frame_key("spectral_stft", config), config.stat);
  return joined(joined(frame_key("contrast_stft", config), config.n_bands), config.band_pad);
}

std::string stft_source(const StftKernel& kernel, const Backend& backend) {
  const StftConfig& s = kernel.config;
  KernelWriter w(s.prec, backend);
  emit_frame_map(w, s);
  emit_frame_transform(w, s);
  s.stat == kNoStatistic ? emit_spectra(w, s) : emit_frame_statistic(w, s);
  return frame_title(s) + frame_prelude(backend, s) + frame_defines(s) + eps_define(s.form, s.eps) +
         head(kernel, backend) + w.str() + "}\n";
}

}  // namespace kevra::codegen
