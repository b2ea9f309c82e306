// The fused kernels of the short-time transform, ready to launch: made at a call's first run, kept
// for the next ones.
#pragma once

#include <cstddef>
#include <cstdint>

#include "codegen/stft_config.h"
#include "cuda_like/device.h"
#include "cuda_like/ops/frame_plan.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/ops/stft.h"

namespace kevra::ops {

struct StftPlan : FramePlan {
  int frames = 0;
  bool staged = false;  // no fused kernel serves; nothing above is set
};

PlanKey stft_plan_key(const StftCall& call, const FramePrecision& prec,
                      const codegen::FrameStatistic& statistic = {});
// One map for all threads, locked for look-up and insert alone.
bool find_stft_plan(const PlanKey& key, StftPlan* plan);
void keep_stft_plan(const PlanKey& key, const StftPlan& plan);

// Batch, window and eps; throws std::invalid_argument.
void check_stft(const StftCall& call);

// The schedule of a call under its hint, on the current device.
codegen::StftConfig route_call(const StftCall& call, const FramePrecision& prec, int64_t frames,
                               const codegen::FrameStatistic& statistic = {});
StftPlan build_stft_plan(const StftCall& call, const codegen::StftConfig& config);

}  // namespace kevra::ops
