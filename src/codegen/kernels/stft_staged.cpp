#include "codegen/kernels/stft_staged.h"

#include "codegen/format.h"
#include "codegen/kernel_signature.h"
#include "codegen/kernel_writer.h"
#include "codegen/kernels/frame_load.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "codegen/prelude.h"
#include "codegen/thread_map.h"

namespace kevra::codegen {

std::string FramesKernel::key() const {
  return format("cfsframes_$_$_$_$_$", {std::to_string(config.n_fft), std::to_string(config.hop),
                                        std::to_string(config.pad), std::to_string(config.prec),
                                        std::to_string(config.in_prec)});
}

std::string frames_source(const FramesKernel& kernel, const Backend& backend) {
  const StftConfig& s = kernel.config;
  const std::string type = backend.scalar_type(s.prec);
  const std::string head = KernelSignature(FramesKernel::kName, backend)
                               .add_const_pointer(backend.scalar_type(s.in_prec), "y")
                               .add_pointer(type, "frames")
                               .add_const_pointer(type, "win")
                               .add_scalar("int", "NFRAMES")
                               .add_scalar("int", "SIG_LEN")
                               .set_launch_bounds(FramesKernel::kBlock, 0)
                               .head();

  KernelWriter w(s.prec, backend);
  w.stmt("int tid = $;", backend.thread_index());
  w.stmt("int t = $;", backend.block_index_x());
  w.stmt("I64 batch = $;", backend.block_index_y());
  w.stmt("const DEV $* yb = y + batch * SIG_LEN;", backend.scalar_type(s.in_prec));
  w.stmt("DEV $* fb = frames + (batch * NFRAMES + t) * $;", type, s.n_fft);
  w.for_loop("i", "tid", std::to_string(s.n_fft), std::to_string(FramesKernel::kBlock),
             [&](const std::string& i) { w.stmt("fb[$] = $;", i, windowed_sample(w, s, "t", i)); });
  return backend.source_preamble(s.in_prec) + i64_prelude(backend) + reflect_prelude(s.pad) + head +
         w.str() + "}\n";
}

std::string SpectrumFormKernel::key() const {
  return format("cfsmode_$_$_$_m$", {std::to_string(bins), std::to_string(compute),
                                     std::to_string(storage), std::to_string(form)}) +
         eps_key(form, eps);
}

std::string spectrum_form_source(const SpectrumFormKernel& kernel, const Backend& backend) {
  const std::string head =
      KernelSignature(SpectrumFormKernel::kName, backend)
          .add_const_pointer("cplx", "z")
          .add_pointer(output_type(backend, kernel.form, kernel.storage), "out")
          .add_scalar("int", "nrows")
          .set_launch_bounds(SpectrumFormKernel::kBlock, 0)
          .head();

  KernelWriter w(kernel.compute, backend);
  flat_row_index(w, "k", std::to_string(kernel.bins));
  w.stmt("if (row >= nrows) return;");
  w.stmt("cplx zk = z[row * $ + k];", kernel.bins);
  emit_output_element(w, kernel.form, kernel.storage,
                      format("out[row * $ + k]", {std::to_string(kernel.bins)}), "zk.x", "zk.y");
  return backend.source_preamble(kernel.storage == kHalf ? kHalf : kernel.compute) +
         complex_prelude(backend, kernel.compute) + eps_define(kernel.form, kernel.eps) + head +
         w.str() + "}\n";
}

}  // namespace kevra::codegen
