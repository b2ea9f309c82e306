// The caching allocator of device memory behind device_alloc and device_free. A released block is
// cached under the device it came from and the stream it was released on, and serves again only
// there: stream order is the whole safety argument, and no event is needed.
#pragma once

#include "rocm/block_list.h"

namespace kevra {

// Gives every cached block back to HIP; blocks in use stay.
void device_drain();
PoolFigures device_pool_figures();

}  // namespace kevra
