// The caching allocator of pinned host memory behind pinned_alloc and pinned_free.
#pragma once

#include "rocm/block_list.h"

namespace kevra {

// Gives every cached block back to HIP; blocks in use stay, those under living arrays included.
void pinned_drain();
PoolFigures pinned_pool_figures();

}  // namespace kevra
