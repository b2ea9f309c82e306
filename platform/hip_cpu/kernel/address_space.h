// What the addresses mean that a kernel touches.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "runtime/memory.h"

namespace kevra_cpu {

struct AddressRange {
  uintptr_t begin = 0, end = 0;

  bool holds(uintptr_t address, size_t bytes) const {
    return address >= begin && address < end && bytes <= end - address;
  }
};

AddressRange range_of(const void* p, size_t bytes);

// The calling thread's stack.
AddressRange stack_of_this_thread();

// The image of the loaded object that holds `code`.
AddressRange image_of(const void* code);

// Live allocations, with the last one found remembered: a kernel stays with a few.
class AllocationLookup {
 public:
  // Null when the bytes do not lie within one live allocation.
  const Allocation* find(uintptr_t address, size_t bytes);

 private:
  static constexpr size_t remembered = 4;

  std::vector<Allocation> recent_;
  uint64_t generation_ = 0;
};

}  // namespace kevra_cpu
