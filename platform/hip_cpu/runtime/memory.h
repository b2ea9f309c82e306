// The live allocations of every device. Check mode asks it what an address belongs to.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kevra_cpu {

struct Allocation {
  uintptr_t base = 0;
  size_t bytes = 0;
  int device = 0;
  bool pinned = false;  // host memory from hipHostMalloc
};

// 0, or 2 when the device's limit (KEVRA_CPU_MEMORY) would be passed.
int allocate_device(int device, size_t bytes, void** out);
int allocate_pinned(size_t bytes, void** out);
// 0, or 1 when `p` is no live allocation of that kind. Null is accepted.
int free_device(void* p);
int free_pinned(void* p);

// The live allocation that holds `address`; false when none does.
bool find_allocation(uintptr_t address, Allocation* out);
// The live allocation whose bytes lie nearest to `address`; false when there are none.
bool nearest_allocation(uintptr_t address, Allocation* out);
// Changes whenever the set of live allocations does, so that lookups can be memoised.
uint64_t allocation_generation();

}  // namespace kevra_cpu
