// Gradient of the spectral statistics with respect to the magnitudes.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/spectral.h"

namespace kevra::ops {

// m and gm are (rows, n), gy (rows). Nothing is queued for no rows. Throws std::invalid_argument
// for half precision, a statistic without gradient (the rolloff, which moves in steps), an exponent
// and sizes out of bounds before anything is queued.
void spectral_adjoint_resident(devptr_t m, devptr_t gy, devptr_t gm, int64_t rows, int64_t n,
                               const SpectralStatistic& statistic, int prec, int device,
                               stream_t stream);

}  // namespace kevra::ops
