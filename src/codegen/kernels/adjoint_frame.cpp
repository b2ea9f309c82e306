#include "codegen/kernels/adjoint_frame.h"

#include <algorithm>
#include <vector>

#include "codegen/format.h"
#include "codegen/prelude.h"
#include "codegen/sizes.h"
#include "codegen/stages.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {
namespace {

void each_point(KernelWriter& w, const char* var, int count,
                const std::function<void(const std::string&)>& body) {
  w.for_loop(var, "tid", std::to_string(count), "TPF", body);
}

}  // namespace

int AdjointFrame::threads() const {
  return std::min(std::max(n_fft, 32), 256);
}

int AdjointFrame::points() const {
  return n_fft + rader_extra(n_fft);
}

size_t AdjointFrame::shared_bytes(bool with_spectrum) const {
  return static_cast<size_t>(points() + (with_spectrum ? bins() : 0)) * complex_bytes(prec);
}

std::string AdjointFrame::key(const char* prefix) const {
  return format("$_$_$_$_$_$",
                {prefix, std::to_string(n_fft), std::to_string(hop), std::to_string(pad),
                 std::to_string(prec), slots ? "slots" : "sums"});
}

std::string adjoint_prelude(const AdjointFrame& frame, const Backend& backend) {
  return complex_prelude(backend, frame.prec) +
         format("#define NB $\n#define TPF $\n#define HOP $\n",
                {std::to_string(frame.bins()), std::to_string(frame.threads()),
                 std::to_string(frame.hop)}) +
         shp_define(false);
}

void emit_adjoint_map(KernelWriter& w, const AdjointFrame& frame) {
  register_twiddle_table(w, frame.prec, frame.n_fft, "twg", factorize(frame.n_fft));
  map_frame_per_block(w);
  w.stmt("TG cplx* bufA = sh_all;");
}

void emit_adjoint_transform(KernelWriter& w, const AdjointFrame& frame) {
  w.barrier();
  emit_fft_stages(w, "bufA", frame.n_fft, factorize(frame.n_fft), frame.threads(), false);
}

void emit_frame_spectrum(KernelWriter& w, const AdjointFrame& frame) {
  const std::string t = w.backend.scalar_type(w.prec);
  w.line("  // the frame's spectrum, as the forward pass has it");
  w.stmt("TG cplx* Xs = sh_all + $;", frame.points());
  w.stmt("const DEV $* yb = y + (I64)batch * SIG_LEN;", t);
  each_point(w, "i", frame.n_fft, [&](const std::string& i) {
    w.stmt("bufA[SHP($)] = cmk(yb[refl(frame*HOP + $)] * win[$], ($)0);", i, i, i, t);
  });
  emit_adjoint_transform(w, frame);
  each_point(w, "k", frame.bins(),
             [&](const std::string& k) { w.stmt("Xs[$] = bufA[SHP($)];", k, k); });
  w.barrier();
}

void emit_scaled_bins(KernelWriter& w, const AdjointFrame& frame, const BinFactor& emit_factor) {
  const std::string t = w.backend.scalar_type(w.prec);
  w.line("  // the conjugate of each bin's gradient");
  each_point(w, "j", frame.n_fft, [&](const std::string& j) {
    w.if_block(j + " < NB", [&] {
      w.stmt("cplx X = Xs[$];", j);
      emit_factor(j);
      w.stmt("bufA[SHP($)] = cmk(c*X.x, -(c*X.y));", j);
    });
    w.stmt("if ($ >= NB) bufA[SHP($)] = cmk(($)0,($)0);", j, j, t, t);
  });
}

void emit_frame_gradient(KernelWriter& w, const AdjointFrame& frame) {
  emit_adjoint_transform(w, frame);
  w.line("  // what the frame's samples receive");
  if (frame.slots) {
    w.stmt("I64 ob = ((I64)batch*NF + frame) * $;", frame.n_fft);
  } else {
    w.stmt("I64 ob = (I64)batch*out_len + (I64)frame*HOP;");
  }
  each_point(w, "i", frame.n_fft, [&](const std::string& i) {
    const std::string target = "graw[ob + " + i + "]";
    const std::string value = format("bufA[SHP($)].x * win[$]", {i, i});
    if (frame.slots) {
      w.stmt("$ = $;", target, value);
    } else {
      w.stmt("$", w.backend.atomic_add(target, value));
    }
  });
}

}  // namespace kevra::codegen
