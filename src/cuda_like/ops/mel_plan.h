// What a call of the mel spectrogram settles before it runs, and the fused kernel's launch: shared
// by the operations that go on from its bands.
#pragma once

#include <cstddef>
#include <cstdint>

#include "codegen/stft_config.h"
#include "cuda_like/device.h"
#include "cuda_like/filter_bank.h"
#include "cuda_like/ops/frame_plan.h"
#include "cuda_like/ops/mel.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/ops/stft.h"

namespace kevra::ops {

// The route through device memory leaves the fused kernel empty.
struct MelPlan : FramePlan {
  codegen::StftConfig config{};
  FilterBankTable bank{};

  bool staged() const { return config.core == codegen::StftCore::kFourStep; }
};

// The frames of a signal of `length` samples. Throws std::invalid_argument for options that cannot
// be served; batches are the caller's to check.
int64_t check_mel(const MelOptions& options, int64_t length);

// All that tells two plans apart: everything of a call but batch and addresses.
uint64_t mel_plan_shape(const MelCall& call, const FramePrecision& prec);

// The schedule of the fused kernel, or the four-step core where no block holds a frame.
codegen::StftConfig mel_config(const MelCall& call, const FramePrecision& prec, int64_t frames,
                               const ShapeHint& hint, int n_cepstra = 0);

// Tables and, where `config` has one, the kernel; the device is selected.
MelPlan build_mel_plan(const MelCall& call, const codegen::StftConfig& config);

// Queues the fused kernel. `cepstra` is the matrix of a kernel that ends with cepstra; the others
// do not read it.
void launch_mel(const MelPlan& plan, const MelCall& call, devptr_t cepstra = nullptr);

}  // namespace kevra::ops
