// Tonnetz: chroma vectors of twelve classes projected on six tonal coordinates.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// Throws std::invalid_argument for rows out of bounds.
void check_tonnetz(int64_t rows);

// rows x 12 values in, rows x 6 out. Nothing is queued for no rows.
void tonnetz_resident(devptr_t c, devptr_t out, int64_t rows, int prec, int device,
                      stream_t stream);

// c is (batch, 12, frames); the result (batch, frames, 6).
template <class T>
PinnedArray<T> tonnetz_staged(const HostArray<T>& c);

}  // namespace kevra::ops
