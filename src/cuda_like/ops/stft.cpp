#include "cuda_like/ops/stft.h"

#include <bit>
#include <mutex>
#include <stdexcept>

#include "codegen/kernels/spectrum_output.h"
#include "codegen/kernels/stft.h"
#include "codegen/precision.h"
#include "codegen/sizes.h"
#include "cuda_like/hash.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/ops/stft_staged.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {
namespace {

using codegen::StftConfig;
using codegen::StftCore;
using codegen::StftKernel;

struct StftPlan {
  kernel_t fn = nullptr;
  unsigned blocks = 0;
  unsigned block = 0;
  size_t shared = 0;
  devptr_t twiddles = nullptr;
  devptr_t window = nullptr;
  int frames = 0;
  bool staged = false;  // several launches; nothing above is set
};

// Guarded by runtime_mutex, which is held for look-up and insert alone.
PlanMap<StftPlan>& plans() {
  static PlanMap<StftPlan> map;
  return map;
}

bool find_plan(const PlanKey& key, StftPlan* plan) {
  std::lock_guard lock(runtime_mutex);
  const auto it = plans().find(key);
  if (it == plans().end()) return false;
  *plan = it->second;
  return true;
}

void keep_plan(const PlanKey& key, const StftPlan& plan) {
  std::lock_guard lock(runtime_mutex);
  plans().insert_or_assign(key, plan);
}

template <class T>
FramePrecision precision_of(const StftCall& call) {
  return frame_precision(call.n_fft, sizeof(T) == 8, call.half, call.half_compute);
}

PlanKey plan_key(const StftCall& call, const FramePrecision& prec) {
  const uint64_t flags = static_cast<uint64_t>(call.form) << 8 |
                         static_cast<uint64_t>(prec.compute) << 4 |
                         static_cast<uint64_t>(prec.storage) << 2 | (call.center ? 1u : 0u);
  const uint64_t eps = call.form == codegen::kDecibelForm ? std::bit_cast<uint64_t>(call.eps) : 0;
  const uint64_t key = key_of({call.window.key, uint64_t(call.n_fft), uint64_t(call.hop),
                               uint64_t(call.device), flags, uint64_t(call.length), eps});
  return {key, shape_epoch()};
}

ShapeHint hint_for(const StftCall& call, const FramePrecision& prec) {
  if (call.override != nullptr) return *call.override;
  ShapeHint hint;
  hint_lookup(hint_key({.op = HintOp::kStft,
                        .n = static_cast<int>(call.n_fft),
                        .hop = static_cast<int>(call.hop),
                        .center = call.center,
                        .bits = prec.hint_bits(),
                        .form = call.form,
                        .device = call.device}),
              &hint);
  return hint;
}

void check_stft(const StftCall& call) {
  check_frame_batch("stft", StftKernel::kName, call.batch);
  check_window(call.window, call.n_fft);
  check_eps("stft", call.form, call.eps);
}

StftConfig route(const StftCall& call, const FramePrecision& prec, int64_t frames) {
  const codegen::StftRequest request{
      .prec = prec.compute,
      .n_fft = static_cast<int>(call.n_fft),
      .hop = static_cast<int>(call.hop),
      .pad = static_cast<int>(frame_padding(call.n_fft, call.center)),
      .length = static_cast<int>(call.length),
      .frames = static_cast<int>(frames),
      .form = call.form,
      .eps = call.eps};
  StftConfig config = route_stft(request, hint_for(call, prec), device_shared_limit(call.device));
  config.in_prec = config.out_prec = prec.storage;
  config.win_kind = 0;
  return config;
}

StftPlan build_plan(const StftCall& call, const StftConfig& config) {
  StftPlan plan;
  plan.staged = config.core == StftCore::kFourStep;
  if (plan.staged) return plan;
  const StftKernel kernel{config};
  check_shared(kernel.shared_bytes(), call.device, "stft: n_fft");
  plan.window = window_table(call.window, config.n_fft, config.prec);
  plan.twiddles = frame_twiddles(config);
  plan.fn = kernel_function(
      kernel.key(), call.device, [&] { return stft_source(kernel, backend()); }, kernel.kName);
  plan.blocks = kernel.blocks(config.frames);
  plan.block = static_cast<unsigned>(kernel.block());
  plan.shared = kernel.shared_bytes();
  plan.frames = config.frames;
  return plan;
}

void launch(const StftPlan& plan, const StftCall& call) {
  devptr_t y = call.y;
  devptr_t out = call.out;
  devptr_t twiddles = plan.twiddles;
  devptr_t window = plan.window;
  int frames = plan.frames;
  int length = static_cast<int>(call.length);
  void* args[] = {&y, &out, &twiddles, &window, &frames, &length};
  launch_kernel(plan.fn, plan.blocks, static_cast<unsigned>(call.batch), plan.block, plan.shared,
                args, StftKernel::kName, call.stream);
}

}  // namespace

int FramePrecision::hint_bits() const {
  return compute == codegen::kDouble ? 64 : compute == codegen::kHalf ? 8 : storage == 0 ? 16 : 32;
}

FramePrecision frame_precision(int64_t n_fft, bool wide, bool half, bool half_compute) {
  if (wide) return {codegen::kDouble, codegen::kDouble};
  const bool packed = half && half_compute && codegen::is_power_of_two(static_cast<int>(n_fft));
  return {packed ? codegen::kHalf : codegen::kFloat, half ? codegen::kHalf : codegen::kFloat};
}

template <class T>
void stft_dispatch(const StftCall& call) {
  const FramePrecision prec = precision_of<T>(call);
  const PlanKey key = plan_key(call, prec);
  StftPlan plan;
  if (call.override == nullptr && find_plan(key, &plan) && !plan.staged) {
    check_frame_batch("stft", StftKernel::kName, call.batch);
    select_device(call.device);
    return launch(plan, call);
  }

  const int64_t frames = frame_count(call.length, call.n_fft, call.hop,
                                     frame_padding(call.n_fft, call.center), "stft");
  check_stft(call);
  select_device(call.device);
  const StftConfig config = route(call, prec, frames);
  plan = build_plan(call, config);
  if (call.override == nullptr) keep_plan(key, plan);
  if (plan.staged) return staged_stft<T>(call, config);
  launch(plan, call);
}

template void stft_dispatch<float>(const StftCall&);
template void stft_dispatch<double>(const StftCall&);

void stft_resident(const StftCall& call, int prec) {
  StftCall twin = call;
  twin.half = prec == 0 || prec == 3;
  twin.half_compute = prec == 3;
  prec == 2 ? stft_dispatch<double>(twin) : stft_dispatch<float>(twin);
}

template <class T, class Element>
PinnedArray<Element> stft_staged(const HostArray<T>& y, const StftOptions& options) {
  if (y.dims() != 2) throw std::invalid_argument("expected a 2-D (batch, samples) array");
  StftCall call{.y = nullptr,
                .out = nullptr,
                .batch = y.shape[0],
                .length = y.shape[1],
                .n_fft = options.n_fft,
                .hop = options.hop,
                .center = options.center,
                .form = options.form,
                .eps = options.eps,
                .window = options.window};
  const int64_t B = call.batch;
  const int64_t nf = frame_count(call.length, call.n_fft, call.hop,
                                 frame_padding(call.n_fft, call.center), "stft");
  check_stft(call);
  const int64_t nb = call.n_fft / 2 + 1;
  const size_t oel = sizeof(Element);

  select_device(0);
  DeviceBuffer dy = upload_staged(y.data, static_cast<size_t>(B) * call.length);
  DeviceBuffer dout((size_t)B * nf * nb * oel, nullptr);
  call.y = dy.p;
  call.out = dout.p;
  stft_dispatch<T>(call);

  PinnedArray<Element> out({B, nf, nb});
  KEVRA_CHECK(memcpyDtoH(out.mutable_data(), dout.p, (size_t)B * nf * nb * oel));
  return out;
}

template PinnedArray<float> stft_staged(const HostArray<float>&, const StftOptions&);
template PinnedArray<double> stft_staged(const HostArray<double>&, const StftOptions&);
template PinnedArray<std::complex<float>> stft_staged(const HostArray<float>&, const StftOptions&);
template PinnedArray<std::complex<double>> stft_staged(const HostArray<double>&,
                                                       const StftOptions&);

}  // namespace kevra::ops
