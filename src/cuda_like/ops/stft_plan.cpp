#include "cuda_like/ops/stft_plan.h"

#include <bit>
#include <mutex>

#include "codegen/kernels/spectrum_output.h"
#include "codegen/kernels/stft.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {
namespace {

using codegen::StftConfig;
using codegen::StftCore;
using codegen::StftKernel;

// Guarded by runtime_mutex.
PlanMap<StftPlan>& plans() {
  static PlanMap<StftPlan> map;
  return map;
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

}  // namespace

PlanKey stft_plan_key(const StftCall& call, const FramePrecision& prec,
                      const codegen::FrameStatistic& statistic) {
  const uint64_t flags = static_cast<uint64_t>(call.form) << 8 |
                         static_cast<uint64_t>(prec.compute) << 4 |
                         static_cast<uint64_t>(prec.storage) << 2 | (call.center ? 1u : 0u);
  const uint64_t eps = eps_word(call.form, call.eps);
  const uint64_t key = key_of({call.window.key, uint64_t(call.n_fft), uint64_t(call.hop),
                               uint64_t(call.device), flags, uint64_t(call.length), eps});
  if (statistic.stat == codegen::kNoStatistic) return {key, shape_epoch()};
  return {key_of({key, uint64_t(statistic.stat), uint64_t(statistic.n_bands),
                  uint64_t(statistic.band_pad)}),
          shape_epoch()};
}

bool find_stft_plan(const PlanKey& key, StftPlan* plan) {
  std::lock_guard lock(runtime_mutex);
  const auto it = plans().find(key);
  if (it == plans().end()) return false;
  *plan = it->second;
  return true;
}

void keep_stft_plan(const PlanKey& key, const StftPlan& plan) {
  std::lock_guard lock(runtime_mutex);
  plans().insert_or_assign(key, plan);
}

void check_stft(const StftCall& call) {
  check_frame_batch("stft", StftKernel::kName, call.batch);
  check_window(call.window, call.n_fft);
  check_eps("stft", call.form, call.eps);
}

StftConfig route_call(const StftCall& call, const FramePrecision& prec, int64_t frames,
                      const codegen::FrameStatistic& statistic) {
  const codegen::StftRequest request{
      .prec = prec.compute,
      .n_fft = static_cast<int>(call.n_fft),
      .hop = static_cast<int>(call.hop),
      .pad = static_cast<int>(frame_padding(call.n_fft, call.center)),
      .length = static_cast<int>(call.length),
      .frames = static_cast<int>(frames),
      .form = call.form,
      .eps = call.eps,
      .statistic = statistic};
  StftConfig config = route_stft(request, hint_for(call, prec), device_shared_limit(call.device));
  config.in_prec = config.out_prec = prec.storage;
  config.win_kind = 0;
  return config;
}

StftPlan build_stft_plan(const StftCall& call, const StftConfig& config) {
  StftPlan plan;
  plan.staged = config.core == StftCore::kFourStep;
  if (plan.staged) return plan;
  const StftKernel kernel{config};
  prepare(plan, kernel, call.window, call.device, "stft: n_fft",
          [&] { return stft_source(kernel, backend()); });
  plan.frames = config.frames;
  return plan;
}

}  // namespace kevra::ops
