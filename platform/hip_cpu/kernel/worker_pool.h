// The threads that share the blocks of a launch.
#pragma once

#include <cstdint>
#include <functional>

namespace kevra_cpu {

// Calls `run` with every number below `count`, from the calling thread and from the workers,
// until one call gives false; returns when all calls have. Several threads may call at once.
void share_blocks(uint64_t count, const std::function<bool(uint64_t)>& run);

}  // namespace kevra_cpu
