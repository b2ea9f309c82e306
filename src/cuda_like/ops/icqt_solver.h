// The inverse of a constant-Q transform by least squares: the signal whose transform is nearest to
// given bins, stepped towards by conjugate gradient.
#pragma once

#include <complex>
#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/cqt_design.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

struct IcqtSolveCall {
  devptr_t c;  // batch x n_bins x frames, complex
  devptr_t y;  // batch x length, real: where to start, and the result
  int64_t batch;
  int64_t length;
  CqtDesign design;  // of the forward transform
  int64_t n_iter;    // below 1: y stays as it is
  int device = 0;
  stream_t stream = nullptr;
};

// prec picks the twin: 2 double, 1 float. Half is refused. Waits for the stream.
void icqt_cg_resident(const IcqtSolveCall& call, int prec);

// c is (batch, n_bins, frames), y0 (batch, samples); the result is as y0.
template <class T>
PinnedArray<T> icqt_cg_staged(const HostArray<std::complex<T>>& c, const HostArray<T>& y0,
                              const CqtDesign& design, int64_t n_iter);

}  // namespace kevra::ops
