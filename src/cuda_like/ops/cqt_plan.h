// A constant-Q transform made ready: tables, kernels and sizes of one design at one signal length.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "cuda_like/device.h"
#include "cuda_like/hints.h"
#include "cuda_like/ops/cqt_design.h"
#include "cuda_like/ops/cqt_tables.h"
#include "cuda_like/ops/plan_map.h"

namespace kevra::ops {

// batch x length samples in; batch x n_bins x frames values out, complex or real by `form`.
struct CqtCall {
  const char* op = "cqt";  // whom messages name
  devptr_t x;
  devptr_t out;
  int64_t batch;
  int64_t length;
  CqtDesign design;
  int form = 0;             // output_form
  double eps = 1e-10;       // decibels are 10 log10(power + eps)
  bool half_input = false;  // 16-bit storage (float twin)
  bool half_output = false;
  int device = 0;
  stream_t stream = nullptr;
  const ShapeHint* override = nullptr;  // in place of the hint table; leaves no plan behind

  bool is_empty() const { return batch == 0 || design.frames == 0; }
};

struct CqtStep {
  CqtOctave octave;
  int64_t frames;  // of the level's signal; the result's are the first of them
  int64_t padded;  // samples of a padded row
  // The fused kernel. Null where spectra go through device memory.
  kernel_t fused = nullptr;
  unsigned blocks = 0;
  unsigned block = 0;
  size_t shared = 0;
  devptr_t twiddles = nullptr;
};

struct CqtPlan {
  std::vector<int64_t> lengths;  // samples of each level
  std::vector<CqtStep> steps;    // by level; in the design's order within one
  devptr_t taps = nullptr;
  // Null where no step needs them.
  kernel_t decimate_input = nullptr;  // from level 0
  kernel_t decimate = nullptr;        // from the others
  kernel_t pad_input = nullptr;
  kernel_t reduce = nullptr;
};

// Throws std::invalid_argument for designs and sizes out of bounds before anything is queued, makes
// the call's device current, and finds or makes the plan. The call is not empty. T is the type of
// the arithmetic.
template <class T>
std::shared_ptr<const CqtPlan> cqt_plan(const CqtCall& call);

// The part of that which needs no device; all that an empty call is held to.
void check_cqt(const CqtCall& call);

// --- What the transform's plan has in common with its gradient's --------------------------

// Of all that tells two plans of calls apart.
PlanKey cqt_plan_key(const CqtCall& call);

// The records by level, in the design's order within one, their tables uploaded. None is fused.
template <class T>
std::vector<CqtStep> cqt_steps(const CqtCall& call, const std::vector<int64_t>& lengths);

// Spectra in device memory are rows of one transform, counted in 31 bits.
void check_spectra(const CqtCall& call, const std::vector<CqtStep>& steps);

}  // namespace kevra::ops
