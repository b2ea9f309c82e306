// The order in which the threads of a block and the blocks of a grid run (KEVRA_CPU_ORDER).
// Results of a right kernel do not depend on it.
#pragma once

#include <cstdint>
#include <vector>

namespace kevra_cpu {

// The order of `count` things, or an empty list where they run as they are numbered. `salt` sets
// orders of one launch apart; the same salt and seed give the same order.
std::vector<uint32_t> run_order(uint32_t count, uint64_t salt);

}  // namespace kevra_cpu
