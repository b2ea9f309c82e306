#include "cuda_like/ops/mel_plan.h"

#include <bit>
#include <stdexcept>

#include "codegen/kernels/mel.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {

using codegen::MelKernel;
using codegen::StftConfig;

int64_t check_mel(const MelOptions& o, int64_t length) {
  check_filter_bank("mel", o.bank, o.n_fft);
  if (o.power != 1 && o.power != 2) {
    throw std::invalid_argument("mel: power is " + shown(o.power) +
                                ", must be 1 (magnitude) or 2 (power)");
  }
  const int64_t frames =
      frame_count(length, o.n_fft, o.hop, frame_padding(o.n_fft, o.center), "mel");
  check_window(o.window, o.n_fft);
  check_eps("mel", o.form, o.eps);
  return frames;
}

uint64_t mel_plan_shape(const MelCall& call, const FramePrecision& prec) {
  const MelOptions& o = call.options;
  const uint64_t flags = static_cast<uint64_t>(o.form) << 8 |
                         static_cast<uint64_t>(prec.compute) << 4 |
                         static_cast<uint64_t>(prec.storage) << 2 | (o.center ? 1u : 0u);
  const uint64_t eps = eps_word(o.form, o.eps);
  return key_of({o.window.key, o.bank.hash, uint64_t(o.bank.n_mels), uint64_t(o.bank.bins),
                 std::bit_cast<uint64_t>(o.power), uint64_t(o.n_fft), uint64_t(o.hop),
                 uint64_t(call.device), flags, uint64_t(call.length), eps});
}

StftConfig mel_config(const MelCall& call, const FramePrecision& prec, int64_t frames,
                      const ShapeHint& hint, int n_cepstra) {
  const MelOptions& o = call.options;
  const codegen::StftRequest request{.prec = prec.compute,
                                     .n_fft = static_cast<int>(o.n_fft),
                                     .hop = static_cast<int>(o.hop),
                                     .pad = static_cast<int>(frame_padding(o.n_fft, o.center)),
                                     .length = static_cast<int>(call.length),
                                     .frames = static_cast<int>(frames),
                                     .form = o.form,
                                     .eps = o.eps};
  const codegen::BandShape bands{.n_mels = static_cast<int>(o.bank.n_mels),
                                 .power = static_cast<int>(o.power),
                                 .n_cepstra = n_cepstra};
  StftConfig config = route_mel(request, bands, hint, device_shared_limit(call.device));
  config.in_prec = config.out_prec = prec.storage;
  config.win_kind = 0;
  return config;
}

MelPlan build_mel_plan(const MelCall& call, const StftConfig& config) {
  MelPlan plan;
  plan.config = config;
  plan.bank = filter_bank_table(call.options.bank, config.prec == codegen::kDouble);
  if (plan.staged()) return plan;
  const MelKernel kernel{config};
  prepare(plan, kernel, call.options.window, call.device,
          config.ncep > 0 ? "cepstra: n_fft" : "mel: n_fft",
          [&] { return mel_source(kernel, backend()); });
  return plan;
}

void launch_mel(const MelPlan& plan, const MelCall& call, devptr_t cepstra) {
  devptr_t y = call.y;
  devptr_t mel = call.mel;
  devptr_t twiddles = plan.twiddles;
  devptr_t window = plan.window;
  FilterBankTable bank = plan.bank;
  int frames = plan.config.frames;
  int length = static_cast<int>(call.length);
  void* args[] = {&y,        &mel,    &twiddles, &window, &bank.lo,
                  &bank.off, &bank.w, &frames,   &length, &cepstra};
  launch_kernel(plan.fn, plan.blocks, static_cast<unsigned>(call.batch), plan.block, plan.shared,
                args, MelKernel::kName, call.stream);
}

}  // namespace kevra::ops
