#include "codegen/kernels/cqt_fused.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/cqt_bins.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/sizes.h"

namespace kevra::codegen {
namespace {

std::string head(const CqtFusedKernel& kernel, const Backend& backend) {
  const StftConfig& s = kernel.config;
  const std::string t = backend.scalar_type(s.prec);
  return KernelSignature(CqtFusedKernel::kName, backend)
      .add_const_pointer(t, "y")
      .add_pointer(output_type(backend, s.form, s.out_prec), "out")
      .add_const_pointer("cplx", "tw")
      .add_const_pointer(t, "br")
      .add_const_pointer(t, "bi")
      .add_const_pointer("int", "blo")
      .add_const_pointer("int", "bhi")
      .add_scalar("int", "NFRAMES")
      .add_scalar("int", "SIG_LEN")
      .add_scalar("int", "rows")
      .add_scalar("int", "n_bins")
      .add_scalar("int", "row_lo")
      .add_scalar("I64", "nf")
      .add_scalar(t, "eps")
      .set_launch_bounds(kernel.block(), 0)
      .set_shared("cplx", "sh_all")
      .head();
}

size_t bins(const StftConfig& s) {
  return static_cast<size_t>(s.n_fft) / 2 + 1;
}

}  // namespace

std::string CqtFusedKernel::key() const {
  std::string text = "raw_cqtf";
  for (int field : {config.n_fft, config.hop, config.prec, config.form, config.out_prec, config.fpb,
                    config.ept, config.tpf, static_cast<int>(config.core)}) {
    text += "_" + std::to_string(field);
  }
  return text + "_d" + std::to_string(device) + eps_key(config.form, config.eps);
}

size_t CqtFusedKernel::shared_bytes() const {
  return frame_shared_bytes(config) + config.fpb * bins(config) * complex_bytes(config.prec);
}

std::string CqtFusedKernel::source(const Backend& backend) const {
  const StftConfig& s = config;
  KernelWriter w(s.prec, backend);
  emit_frame_map(w, s);
  w.line("  // the spectra stand behind all that the transforms use");
  w.stmt("TG cplx* spec_all = sh_all + TWN + (long)F * $;", static_cast<int>(padded_bins(s)));
  w.stmt("TG cplx* specb = spec_all + (long)f_local * NB;");
  emit_frame_transform(w, s);
  w.line("  // split into bins");
  w.if_block("frame < NFRAMES", [&] {
    emit_bins(w, s, [&](const std::string& k, const std::string& re, const std::string& im) {
      w.stmt("specb[$] = cmk($, $);", k, re, im);
    });
  });
  // Outside every guard: a block's frames past NFRAMES must not keep the others waiting.
  w.barrier();
  w.line("  // the rows of the basis, one to a thread");
  w.if_block("frame < NFRAMES", [&] {
    w.for_loop("k", "tid", "rows", "TPF", [&](const std::string&) {
      emit_bin_product(w, "specb", "NB");
      w.stmt("I64 idx = ((I64)batch * n_bins + row_lo + k) * nf + frame;");
      emit_bin_store(w, s.form, s.out_prec);
    });
  });
  return frame_title(s) + frame_prelude(backend, s) + frame_defines(s) + head(*this, backend) +
         w.str() + "}\n";
}

std::optional<CqtFusedKernel> route_cqt(const StftRequest& request, int storage, int device,
                                        int64_t cap) {
  if (!is_power_of_two(request.n_fft)) return std::nullopt;
  CqtFusedKernel kernel{route_stft(request, {}, cap), device};
  StftConfig& s = kernel.config;
  if (s.core == StftCore::kFourStep) return std::nullopt;
  s.win_kind = kNoWindow;
  s.out_prec = storage;
  const auto fits = [&] { return static_cast<int64_t>(kernel.shared_bytes()) <= cap; };
  while (s.fpb > 1 && !fits()) --s.fpb;
  return fits() ? std::optional(kernel) : std::nullopt;
}

}  // namespace kevra::codegen
