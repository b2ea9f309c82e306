// The constant-Q transform: C[k][t] = sum over i of (br[k][i] + i bi[k][i]) X_t[i], X_t being the
// real Fourier transform of frame t of a level's signal, which zeros surround.
#pragma once

#include <complex>
#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/cqt_plan.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// The level driver: queues the octaves of every level and the steps between levels. The plan is
// that of the call.
template <class T>
void queue_cqt(const CqtPlan& plan, const CqtCall& call);

// prec picks the twin and the storage of samples and result: 2 double, 0 half, else float.
void cqt_resident(const CqtCall& call, int prec);

// y is (batch, samples); the result (batch, n_bins, frames). Element is T for the real forms and
// std::complex<T> for the complex one.
template <class T, class Element>
PinnedArray<Element> cqt_staged(const HostArray<T>& y, const CqtDesign& design, int form,
                                double eps);

}  // namespace kevra::ops
