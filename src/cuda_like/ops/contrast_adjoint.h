// Gradient of the spectral contrast with respect to the magnitudes.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/contrast.h"

namespace kevra::ops {

// m and gm are (rows, n), gy (rows, n_bands). Nothing is queued for no rows; without bands gm is
// zeroed. Throws std::invalid_argument for half precision, and for bands and sizes as
// contrast_reduce_resident does, before anything is queued. The first call for a table of bands
// waits for the device.
void contrast_adjoint_resident(devptr_t m, devptr_t gy, devptr_t gm, int64_t rows, int64_t n,
                               const ContrastOptions& contrast, int prec, int device,
                               stream_t stream);

}  // namespace kevra::ops
