#include "cuda_like/ops/mel.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

#include "codegen/kernels/mel.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/ops/stft.h"
#include "cuda_like/ops/stft_staged.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {
namespace {

using codegen::BandKernel;
using codegen::MelKernel;
using codegen::StftConfig;
using codegen::StftCore;

struct MelPlan {
  StftConfig config;
  FilterBankTable bank{};
  // The fused kernel; the route through device memory sets nothing below.
  kernel_t fn = nullptr;
  unsigned blocks = 0;
  unsigned block = 0;
  size_t shared = 0;
  devptr_t twiddles = nullptr;
  devptr_t window = nullptr;

  bool staged() const { return config.core == StftCore::kFourStep; }
};

template <class T>
PlanMap<MelPlan>& plans() {
  static thread_local PlanMap<MelPlan> map;
  return map;
}

template <class T>
FramePrecision precision_of(const MelCall& call) {
  return frame_precision(call.options.n_fft, sizeof(T) == 8, call.half, call.half_compute);
}

PlanKey plan_key(const MelCall& call, const FramePrecision& prec) {
  const MelOptions& o = call.options;
  const uint64_t flags = static_cast<uint64_t>(o.form) << 8 |
                         static_cast<uint64_t>(prec.compute) << 4 |
                         static_cast<uint64_t>(prec.storage) << 2 | (o.center ? 1u : 0u);
  const uint64_t eps = o.form == codegen::kDecibelForm ? std::bit_cast<uint64_t>(o.eps) : 0;
  const uint64_t key =
      key_of({o.window.key, o.bank.hash, uint64_t(o.bank.n_mels), uint64_t(o.bank.bins),
              std::bit_cast<uint64_t>(o.power), uint64_t(o.n_fft), uint64_t(o.hop),
              uint64_t(call.device), flags, uint64_t(call.length), eps});
  return {key, shape_epoch()};
}

ShapeHint hint_for(const MelCall& call, const FramePrecision& prec) {
  if (call.override != nullptr) return *call.override;
  const MelOptions& o = call.options;
  ShapeHint hint;
  hint_lookup(hint_key({.op = HintOp::kMel,
                        .n = static_cast<int>(o.n_fft),
                        .hop = static_cast<int>(o.hop),
                        .center = o.center,
                        .bits = prec.hint_bits(),
                        .form = o.form,
                        .extra = static_cast<int>(o.bank.n_mels),
                        .device = call.device}),
              &hint);
  return hint;
}

// The frames of a call that may run.
int64_t check_mel(const MelOptions& o, int64_t batch, int64_t length) {
  check_filter_bank("mel", o.bank, o.n_fft);
  if (o.power != 1 && o.power != 2) {
    throw std::invalid_argument("mel: power is " + shown(o.power) +
                                ", must be 1 (magnitude) or 2 (power)");
  }
  const int64_t frames =
      frame_count(length, o.n_fft, o.hop, frame_padding(o.n_fft, o.center), "mel");
  check_frame_batch("mel", MelKernel::kName, batch);
  check_window(o.window, o.n_fft);
  check_eps("mel", o.form, o.eps);
  return frames;
}

StftConfig route(const MelCall& call, const FramePrecision& prec, int64_t frames) {
  const MelOptions& o = call.options;
  const codegen::StftRequest request{.prec = prec.compute,
                                     .n_fft = static_cast<int>(o.n_fft),
                                     .hop = static_cast<int>(o.hop),
                                     .pad = static_cast<int>(frame_padding(o.n_fft, o.center)),
                                     .length = static_cast<int>(call.length),
                                     .frames = static_cast<int>(frames),
                                     .form = o.form,
                                     .eps = o.eps};
  StftConfig config = route_mel(request, static_cast<int>(o.bank.n_mels), static_cast<int>(o.power),
                                hint_for(call, prec), device_shared_limit(call.device));
  config.in_prec = config.out_prec = prec.storage;
  config.win_kind = 0;
  return config;
}

MelPlan build_plan(const MelCall& call, const StftConfig& config) {
  MelPlan plan{.config = config,
               .bank = filter_bank_table(call.options.bank, config.prec == codegen::kDouble)};
  if (plan.staged()) return plan;
  const MelKernel kernel{config};
  check_shared(kernel.shared_bytes(), call.device, "mel: n_fft");
  plan.window = window_table(call.options.window, config.n_fft, config.prec);
  plan.twiddles = frame_twiddles(config);
  plan.fn = kernel_function(
      kernel.key(), call.device, [&] { return mel_source(kernel, backend()); }, kernel.kName);
  plan.blocks = kernel.blocks(config.frames);
  plan.block = static_cast<unsigned>(kernel.block());
  plan.shared = kernel.shared_bytes();
  return plan;
}

void launch(const MelPlan& plan, const MelCall& call) {
  devptr_t y = call.y;
  devptr_t mel = call.mel;
  devptr_t twiddles = plan.twiddles;
  devptr_t window = plan.window;
  FilterBankTable bank = plan.bank;
  int frames = plan.config.frames;
  int length = static_cast<int>(call.length);
  void* args[] = {&y, &mel, &twiddles, &window, &bank.lo, &bank.off, &bank.w, &frames, &length};
  launch_kernel(plan.fn, plan.blocks, static_cast<unsigned>(call.batch), plan.block, plan.shared,
                args, MelKernel::kName, call.stream);
}

// Bands of `rows` spectra of what the bank is applied to.
void reduce(devptr_t spectra, int64_t rows, const MelPlan& plan, const MelCall& call) {
  const StftConfig& s = plan.config;
  const BandKernel kernel{.bins = s.n_fft / 2 + 1,
                          .n_mels = s.n_mels,
                          .compute = band_precision(s),
                          .storage = s.out_prec,
                          .form = s.form,
                          .eps = s.eps};
  const kernel_t fn = kernel_function(
      kernel.key(), call.device, [&] { return band_source(kernel, backend()); }, kernel.kName);
  devptr_t mel = call.mel;
  FilterBankTable bank = plan.bank;
  constexpr int64_t kRowsOfALaunch = 65535;
  for (int64_t row0 = 0; row0 < rows; row0 += kRowsOfALaunch) {
    void* args[] = {&spectra, &mel, &bank.lo, &bank.off, &bank.w, &row0};
    launch_kernel(fn, kernel.blocks(), static_cast<unsigned>(std::min(rows - row0, kRowsOfALaunch)),
                  kernel.kBlock, 0, args, kernel.kName, call.stream);
  }
}

// Magnitude or power spectra to device memory, and their bands from there.
template <class T>
void staged_mel(const MelPlan& plan, const MelCall& call) {
  StftConfig spectra = plan.config;
  spectra.form = spectra.power == 1 ? codegen::kMagnitudeForm : codegen::kPowerForm;
  spectra.prec = spectra.out_prec = band_precision(plan.config);
  const int64_t rows = call.batch * spectra.frames;
  require_int32("mel", "batch x frames", rows, 1);
  const size_t bins = spectra.n_fft / 2 + 1;
  DeviceBuffer p(static_cast<size_t>(rows) * bins * sizeof(T), call.stream);
  staged_stft<T>({.y = call.y,
                  .out = p.p,
                  .batch = call.batch,
                  .length = call.length,
                  .n_fft = call.options.n_fft,
                  .hop = call.options.hop,
                  .center = call.options.center,
                  .form = spectra.form,
                  .window = call.options.window,
                  .half = call.half,
                  .device = call.device,
                  .stream = call.stream},
                 spectra);
  reduce(p.p, rows, plan, call);
}

template <class T>
void run(const MelPlan& plan, const MelCall& call) {
  plan.staged() ? staged_mel<T>(plan, call) : launch(plan, call);
}

}  // namespace

template <class T>
void mel_dispatch(const MelCall& call) {
  const FramePrecision prec = precision_of<T>(call);
  const PlanKey key = plan_key(call, prec);
  if (call.override == nullptr) {
    if (const auto it = plans<T>().find(key); it != plans<T>().end()) {
      check_frame_batch("mel", MelKernel::kName, call.batch);
      select_device(call.device);
      return run<T>(it->second, call);
    }
  }
  const int64_t frames = check_mel(call.options, call.batch, call.length);
  select_device(call.device);
  const MelPlan plan = build_plan(call, route(call, prec, frames));
  if (call.override == nullptr) plans<T>().emplace(key, plan);
  run<T>(plan, call);
}

template void mel_dispatch<float>(const MelCall&);
template void mel_dispatch<double>(const MelCall&);

void mel_resident(const MelCall& call, int prec) {
  MelCall twin = call;
  twin.half = prec == 0 || prec == 3;
  twin.half_compute = prec == 3;
  prec == 2 ? mel_dispatch<double>(twin) : mel_dispatch<float>(twin);
}

template <class T>
PinnedArray<T> mel_staged(const HostArray<T>& y, const MelOptions& options) {
  if (y.dims() != 2) throw std::invalid_argument("expected a 2-D (batch, samples) array");
  const int64_t B = y.shape[0];
  const int64_t length = y.shape[1];
  const int64_t nf = check_mel(options, B, length);
  const int64_t n_mels = options.bank.n_mels;

  select_device(0);
  DeviceBuffer dy = upload_staged(y.data, static_cast<size_t>(B) * length);
  DeviceBuffer dout((size_t)B * nf * n_mels * sizeof(T), nullptr);
  mel_dispatch<T>({.y = dy.p, .mel = dout.p, .batch = B, .length = length, .options = options});

  PinnedArray<T> mel({B, nf, n_mels});
  KEVRA_CHECK(memcpyDtoH(mel.mutable_data(), dout.p, (size_t)B * nf * n_mels * sizeof(T)));
  return mel;
}

template PinnedArray<float> mel_staged(const HostArray<float>&, const MelOptions&);
template PinnedArray<double> mel_staged(const HostArray<double>&, const MelOptions&);

}  // namespace kevra::ops
