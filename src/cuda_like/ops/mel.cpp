#include "cuda_like/ops/mel.h"

#include <stdexcept>

#include "codegen/kernels/mel.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "cuda_like/ops/chunks.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/mel_plan.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/ops/stft.h"
#include "cuda_like/ops/stft_staged.h"

namespace kevra::ops {
namespace {

using codegen::BandKernel;
using codegen::MelKernel;
using codegen::StftConfig;

template <class T>
PlanMap<MelPlan>& plans() {
  static thread_local PlanMap<MelPlan> map;
  return map;
}

template <class T>
FramePrecision precision_of(const MelCall& call) {
  return frame_precision(call.options.n_fft, sizeof(T) == 8, call.half, call.half_compute);
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
  in_chunks(rows, [&](int64_t row0, int64_t count) {
    void* args[] = {&spectra, &mel, &bank.lo, &bank.off, &bank.w, &row0};
    launch_kernel(fn, kernel.blocks(), static_cast<unsigned>(count), kernel.kBlock, 0, args,
                  kernel.kName, call.stream);
  });
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
  plan.staged() ? staged_mel<T>(plan, call) : launch_mel(plan, call);
}

}  // namespace

template <class T>
void mel_dispatch(const MelCall& call) {
  const FramePrecision prec = precision_of<T>(call);
  const PlanKey key{mel_plan_shape(call, prec), shape_epoch()};
  if (call.override == nullptr) {
    if (const auto it = plans<T>().find(key); it != plans<T>().end()) {
      check_frame_batch("mel", MelKernel::kName, call.batch);
      select_device(call.device);
      return run<T>(it->second, call);
    }
  }
  const int64_t frames = check_mel(call.options, call.length);
  check_frame_batch("mel", MelKernel::kName, call.batch);
  select_device(call.device);
  const MelPlan plan = build_mel_plan(call, mel_config(call, prec, frames, hint_for(call, prec)));
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
  const int64_t nf = check_mel(options, length);
  check_frame_batch("mel", MelKernel::kName, B);
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
