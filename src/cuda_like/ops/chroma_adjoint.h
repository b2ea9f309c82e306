// The gradient of chroma with respect to the signal: through the magnitudes of its constant-Q
// transform. The peak that divides a frame is taken for a constant.
#pragma once

#include "cuda_like/ops/chroma.h"
#include "cuda_like/ops/cqt_adjoint.h"

namespace kevra::ops {

// call.g is (batch, n_chroma, frames); the form and eps of the forward call are not read. prec 1 is
// float, 2 double; half is refused.
void chroma_adjoint_resident(const CqtAdjointCall& call, const ChromaClasses& classes, int prec);

}  // namespace kevra::ops
