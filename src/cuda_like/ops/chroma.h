// Chroma: the magnitudes of a constant-Q transform folded into pitch classes, each frame divided by
// its largest.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/cqt_plan.h"
#include "cuda_like/ops/plan_map.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

struct ChromaClasses {
  LazyClasses classes;  // of the bins, each below n_chroma
  int64_t n_chroma;
};

// Throws std::invalid_argument, naming `op`, for a number of classes out of bounds.
void check_classes(const char* op, const ChromaClasses& classes);

// The first stage of a chroma call: magnitudes in the type of the arithmetic.
CqtCall magnitudes_of(const char* op, const CqtCall& call);

// Of all that tells the folding stages of two calls apart.
PlanKey fold_key(const CqtCall& call, const ChromaClasses& classes, bool half);

// call.out is (batch, n_chroma, frames); the call's form and eps are not read. prec picks the twin
// and the storage of samples and result: 2 double, 0 half, else float.
void chroma_resident(const CqtCall& call, const ChromaClasses& classes, int prec);

// y is (batch, samples); the result (batch, n_chroma, frames).
template <class T>
PinnedArray<T> chroma_staged(const HostArray<T>& y, const CqtDesign& design,
                             const ChromaClasses& classes);

}  // namespace kevra::ops
