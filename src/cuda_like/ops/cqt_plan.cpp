#include "cuda_like/ops/cqt_plan.h"

#include <algorithm>
#include <bit>
#include <limits>

#include "codegen/kernels/cqt.h"
#include "codegen/kernels/cqt_fused.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/precision.h"
#include "cuda_like/hash.h"
#include "cuda_like/ops/frames.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/twiddles.h"

namespace kevra::ops {
namespace {

using codegen::CqtFusedKernel;
using codegen::CqtPadKernel;
using codegen::CqtReduceKernel;
using codegen::HalfBandKernel;

template <class T>
int input_precision(const CqtCall& call) {
  return call.half_input ? codegen::kHalf : codegen::kPrecisionOf<T>;
}
template <class T>
int output_precision(const CqtCall& call) {
  return call.half_output ? codegen::kHalf : codegen::kPrecisionOf<T>;
}

template <class T>
PlanMap<std::shared_ptr<const CqtPlan>>& plans() {
  static thread_local PlanMap<std::shared_ptr<const CqtPlan>> map;
  return map;
}

// Whether a hint sends this record's spectra through device memory.
template <class T>
bool wants_two_stages(const CqtCall& call, const CqtOctave& octave) {
  ShapeHint hint;
  if (call.override != nullptr) {
    hint = *call.override;
  } else {
    hint_lookup(hint_key({.op = HintOp::kCqt,
                          .n = octave.n_fft,
                          .hop = octave.hop,
                          .bits = sizeof(T) == 8 ? 64 : 32,
                          .form = call.form,
                          .device = call.device}),
                &hint);
  }
  return hint.core == 1;
}

template <class T>
void plan_fused(const CqtCall& call, CqtStep& step) {
  const codegen::StftRequest request{.prec = codegen::kPrecisionOf<T>,
                                     .n_fft = step.octave.n_fft,
                                     .hop = step.octave.hop,
                                     .pad = 0,
                                     .length = static_cast<int>(step.padded),
                                     .frames = static_cast<int>(call.design.frames),
                                     .form = call.form,
                                     .eps = call.eps};
  const auto kernel = codegen::route_cqt(request, output_precision<T>(call), call.device,
                                         device_shared_limit(call.device));
  if (!kernel) return;
  check_shared(kernel->shared_bytes(), call.device, "cqt: n_fft");
  step.twiddles = frame_twiddles(kernel->config);
  step.fused = kernel_function(*kernel, call.device);
  step.blocks = kernel->blocks(request.frames);
  step.block = static_cast<unsigned>(kernel->block());
  step.shared = kernel->shared_bytes();
}

// The kernels that the steps and the ladder have in common.
template <class T>
void plan_shared_kernels(const CqtCall& call, CqtPlan& plan) {
  const int input = input_precision<T>(call);
  const size_t levels = plan.lengths.size();
  if (levels > 1) {
    plan.decimate_input =
        kernel_function(HalfBandKernel{codegen::kPrecisionOf<T>, input}, call.device);
  }
  if (levels > 2) {
    plan.decimate = kernel_function(
        HalfBandKernel{codegen::kPrecisionOf<T>, codegen::kPrecisionOf<T>}, call.device);
  }
  if (call.half_input && plan.steps.front().octave.level == 0) {
    plan.pad_input = kernel_function(CqtPadKernel{codegen::kPrecisionOf<T>, input}, call.device);
  }
  const auto is_two_stage = [](const CqtStep& s) { return s.fused == nullptr; };
  if (std::any_of(plan.steps.begin(), plan.steps.end(), is_two_stage)) {
    plan.reduce = kernel_function(
        CqtReduceKernel{codegen::kPrecisionOf<T>, call.form, output_precision<T>(call), call.eps},
        call.device);
  }
}

template <class T>
CqtPlan build(const CqtCall& call) {
  CqtPlan plan;
  plan.lengths = level_lengths(call.length, call.design.n_levels);
  plan.taps = taps_table<T>(call.design);
  plan.steps = cqt_steps<T>(call, plan.lengths);
  for (CqtStep& step : plan.steps) {
    if (!wants_two_stages<T>(call, step.octave)) plan_fused<T>(call, step);
  }
  plan_shared_kernels<T>(call, plan);
  return plan;
}

void check_batch(const CqtCall& call) {
  require_at_least(call.op, "batch", call.batch, 0);
  if (call.batch == 0) return;
  check_frame_batch(call.op,
                    call.design.n_levels > 1 ? HalfBandKernel::kName : CqtReduceKernel::kName,
                    call.batch);
}

}  // namespace

PlanKey cqt_plan_key(const CqtCall& call) {
  const CqtDesign& d = call.design;
  const uint64_t flags = static_cast<uint64_t>(call.form) << 2 | (call.half_input ? 2u : 0u) |
                         (call.half_output ? 1u : 0u);
  const uint64_t eps = eps_word(call.form, call.eps);
  std::vector<uint64_t> words{flags,
                              eps,
                              uint64_t(call.device),
                              uint64_t(call.length),
                              uint64_t(d.n_levels),
                              uint64_t(d.n_bins),
                              uint64_t(d.frames),
                              uint64_t(d.taps.rows),
                              uint64_t(d.taps.cols),
                              content_hash(d.plan_key)};
  for (const CqtRecord& r : d.octaves) {
    for (int64_t value :
         {r.level, r.hop, r.n_fft, r.row_lo, r.br.rows, r.br.cols, r.bi.rows, r.bi.cols}) {
      words.push_back(static_cast<uint64_t>(value));
    }
  }
  return {content_hash(words.data(), words.size() * sizeof words[0]), shape_epoch()};
}

template <class T>
std::vector<CqtStep> cqt_steps(const CqtCall& call, const std::vector<int64_t>& lengths) {
  std::vector<CqtStep> steps;
  for (size_t i = 0; i < call.design.octaves.size(); ++i) {
    const CqtOctave octave = octave_tables<T>(call.op, call.design, i);
    const int64_t length = lengths[octave.level];
    steps.push_back({.octave = octave,
                     .frames = cqt_frames(length, octave.n_fft, octave.hop),
                     .padded = length + 2 * cqt_padding(octave.n_fft)});
  }
  std::stable_sort(steps.begin(), steps.end(), [](const CqtStep& a, const CqtStep& b) {
    return a.octave.level < b.octave.level;
  });
  return steps;
}

template std::vector<CqtStep> cqt_steps<float>(const CqtCall&, const std::vector<int64_t>&);
template std::vector<CqtStep> cqt_steps<double>(const CqtCall&, const std::vector<int64_t>&);

void check_spectra(const CqtCall& call, const std::vector<CqtStep>& steps) {
  for (const CqtStep& step : steps) {
    if (step.fused != nullptr) continue;
    require_at_most(call.op, "batch x frames", call.batch * step.frames,
                    std::numeric_limits<int>::max());
  }
}

void check_cqt(const CqtCall& call) {
  check_cqt_design(call.op, call.design, call.length);
  check_eps(call.op, call.form, call.eps);
  check_batch(call);
}

template <class T>
std::shared_ptr<const CqtPlan> cqt_plan(const CqtCall& call) {
  const PlanKey key = cqt_plan_key(call);
  const auto found = call.override == nullptr ? plans<T>().find(key) : plans<T>().end();
  std::shared_ptr<const CqtPlan> plan;
  if (found != plans<T>().end()) {
    check_batch(call);
    select_device(call.device);
    plan = found->second;
  } else {
    check_cqt(call);
    select_device(call.device);
    plan = std::make_shared<const CqtPlan>(build<T>(call));
    if (call.override == nullptr) plans<T>().emplace(key, plan);
  }
  check_spectra(call, plan->steps);
  return plan;
}

template std::shared_ptr<const CqtPlan> cqt_plan<float>(const CqtCall&);
template std::shared_ptr<const CqtPlan> cqt_plan<double>(const CqtCall&);

}  // namespace kevra::ops
