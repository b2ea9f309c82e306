// Gradient of decibels of arrays in device memory.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/db.h"

namespace kevra::ops {

// s, g and gs are (items, n); the reference of the levels counts for nothing. Nothing is queued for
// no items. Throws std::invalid_argument for half precision and a negative n.
void db_adjoint_resident(devptr_t s, devptr_t g, devptr_t gs, const Decibels& db, int prec,
                         int device, stream_t stream);

}  // namespace kevra::ops
