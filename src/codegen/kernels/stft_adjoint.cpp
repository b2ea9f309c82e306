#include "codegen/kernels/stft_adjoint.h"

#include "codegen/kernel_signature.h"
#include "codegen/kernels/chain_rule.h"
#include "codegen/prelude.h"

namespace kevra::codegen {
namespace {

std::string head(const StftAdjointKernel& kernel, const Backend& backend) {
  const std::string t = backend.scalar_type(kernel.frame.prec);
  KernelSignature signature(kernel.name(), backend);
  if (kernel.is_mode()) {
    signature.add_const_pointer(t, "gS").add_const_pointer(t, "y");
  } else {
    signature.add_const_pointer("cplx", "gX");
  }
  signature.add_pointer(t, "graw")
      .add_const_pointer(t, "win")
      .add_const_pointer("cplx", "twg")
      .add_scalar("int", "NF");
  if (kernel.is_mode()) signature.add_scalar("int", "SIG_LEN");
  return signature.add_scalar("I64", "out_len")
      .add_scalar("I64", "sb")
      .add_scalar("I64", "sk")
      .add_scalar("I64", "st")
      .set_launch_bounds(kernel.frame.threads(), 0)
      .set_shared("cplx", "sh_all")
      .head();
}

void emit_complex_load(KernelWriter& w, const AdjointFrame& frame) {
  w.stmt("const DEV cplx* gb = gX + (I64)batch*sb + (I64)frame*st;");
  emit_gradient_points(w, frame, [](const std::string& k) { return "gb[(I64)" + k + "*sk]"; });
}

void emit_mode_load(KernelWriter& w, const StftAdjointKernel& kernel) {
  const std::string t = w.backend.scalar_type(w.prec);
  emit_frame_spectrum(w, kernel.frame);
  w.stmt("const DEV $* gb = gS + (I64)batch*sb + (I64)frame*st;", t);
  emit_scaled_bins(w, kernel.frame, [&](const std::string& j) {
    w.stmt("$ g = gb[(I64)$*sk];", t, j);
    emit_chain_rule(w, kernel.form, kernel.eps, "X", "g");
  });
}

}  // namespace

std::string StftAdjointKernel::key() const {
  if (!is_mode()) return frame.key("adj_stft");
  return frame.key("adj_stft_mode") + "_m" + std::to_string(form) + eps_key(form, eps);
}

std::string StftAdjointKernel::source(const Backend& backend) const {
  KernelWriter w(frame.prec, backend);
  emit_adjoint_map(w, frame);
  if (is_mode()) {
    emit_mode_load(w, *this);
  } else {
    emit_complex_load(w, frame);
  }
  emit_frame_gradient(w, frame);
  return adjoint_prelude(frame, backend) + (is_mode() ? reflect_prelude(frame.pad) : "") +
         eps_define(form, eps) + head(*this, backend) + w.str() + "}\n";
}

}  // namespace kevra::codegen
