// The gradient of a constant-Q transform with respect to its signal. With C = W S for the spectra S
// of a level's frames, dE/dS = conj(W') dE/dC; frames add up to the gradient of the level, and
// levels, from the last one up, to that of the signal. Records of one level all count. Nothing is
// kept from the forward pass: the real forms compute levels and spectra anew.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "cuda_like/device.h"
#include "cuda_like/ops/cqt_plan.h"

namespace kevra::ops {

struct CqtAdjointCall {
  CqtCall forward;  // its x is not read for the complex form, its out never
  devptr_t g;       // batch x n_bins x frames: dE/dRe C + i dE/dIm C, or reals for the real forms
  devptr_t gx;      // batch x length, overwritten
};

struct CqtAdjointPlan {
  std::vector<int64_t> lengths;  // samples of each level
  std::vector<CqtStep> steps;    // by level
  devptr_t taps = nullptr;
  // Null where nothing needs them.
  kernel_t decimate = nullptr;
  kernel_t half_band_adjoint = nullptr;
  kernel_t bin_gradients = nullptr;
  kernel_t spectrum_gradients = nullptr;
  kernel_t add_level = nullptr;
};

// Throws std::invalid_argument for designs and sizes out of bounds before anything is queued, makes
// the call's device current, and finds or makes the plan. The call is not empty. T is the type of
// the arithmetic and of all arrays.
template <class T>
std::shared_ptr<const CqtAdjointPlan> cqt_adjoint_plan(const CqtCall& forward);

// The part of that which needs no device; all that an empty call is held to.
void check_cqt_adjoint(const CqtCall& forward);

// The driver. The plan is that of the call's forward pass.
template <class T>
void queue_cqt_adjoint(const CqtAdjointPlan& plan, const CqtAdjointCall& call);

// No result, no gradient: zeros. Of no rows nothing.
template <class T>
void queue_no_gradient(const CqtAdjointCall& call);

// prec 1 is float, 2 double; half is refused.
void cqt_adjoint_resident(const CqtAdjointCall& call, int prec);

}  // namespace kevra::ops
