#include "runtime/memory.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "common/settings.h"
#include "platform/common/abi.h"

using namespace kevra_platform;

namespace kevra_cpu {
namespace {

// Blocks begin on a boundary that suits every vector load.
constexpr size_t alignment = 256;

// In check mode this much stays free behind each block, so that an overrun lands in no
// neighbour and is seen.
constexpr size_t guard_bytes = 4096;

struct Registry {
  std::shared_mutex mutex;
  std::map<uintptr_t, Allocation> blocks;  // by base address
  std::vector<size_t> used = std::vector<size_t>(static_cast<size_t>(settings().devices));
  std::atomic<uint64_t> generation{0};
};

Registry& registry() {
  static Registry& value = *new Registry;
  return value;
}

// A NaN whether read as double, float or half. The double, every second float and every
// second half are signalling; the layouts leave the others only quiet patterns.
void fill_signalling(void* block, size_t bytes) {
  constexpr uint64_t pattern = 0x7FF47D017FA17D01;
  auto* out = static_cast<std::byte*>(block);
  for (size_t i = 0; i < bytes; i += sizeof pattern) {
    std::memcpy(out + i, &pattern, std::min(sizeof pattern, bytes - i));
  }
}

void* new_block(size_t bytes) {
  const size_t guard = settings().check ? guard_bytes : 0;
  if (bytes > SIZE_MAX - guard - alignment) return nullptr;
  return std::aligned_alloc(alignment, (bytes + guard + alignment - 1) / alignment * alignment);
}

// Takes the block's share of the device's memory; the caller holds the lock.
bool reserve(Registry& all, const Allocation& block) {
  if (block.pinned) return true;
  size_t& used = all.used[static_cast<size_t>(block.device)];
  if (block.bytes > settings().memory || used > settings().memory - block.bytes) return false;
  used += block.bytes;
  return true;
}

void give_back(Registry& all, const Allocation& block) {
  if (!block.pinned) all.used[static_cast<size_t>(block.device)] -= block.bytes;
}

// The share is reserved before the block exists, so that a refusal costs no memory.
int allocate(Allocation block, void** out) {
  *out = nullptr;
  if (block.bytes == 0) return success;
  Registry& all = registry();
  {
    std::unique_lock lock(all.mutex);
    if (!reserve(all, block)) return out_of_memory;
  }
  void* p = new_block(block.bytes);
  if (p && !block.pinned && settings().check) fill_signalling(p, block.bytes);
  block.base = reinterpret_cast<uintptr_t>(p);
  std::unique_lock lock(all.mutex);
  try {
    if (p) all.blocks.emplace(block.base, block);
  } catch (...) {
    std::free(p);
    p = nullptr;
  }
  if (!p) {
    give_back(all, block);
    return out_of_memory;
  }
  all.generation.fetch_add(1, std::memory_order_release);
  *out = p;
  return success;
}

int release(void* p, bool pinned) {
  if (!p) return success;
  Registry& all = registry();
  {
    std::unique_lock lock(all.mutex);
    const auto found = all.blocks.find(reinterpret_cast<uintptr_t>(p));
    if (found == all.blocks.end() || found->second.pinned != pinned) return invalid_value;
    give_back(all, found->second);
    all.blocks.erase(found);
    all.generation.fetch_add(1, std::memory_order_release);
  }
  std::free(p);
  return success;
}

uintptr_t distance(const Allocation& block, uintptr_t address) {
  if (address < block.base) return block.base - address;
  const uintptr_t end = block.base + block.bytes;
  return address < end ? 0 : address - end + 1;
}

}  // namespace

int allocate_device(int device, size_t bytes, void** out) {
  return allocate({.base = 0, .bytes = bytes, .device = device, .pinned = false}, out);
}

int allocate_pinned(size_t bytes, void** out) {
  return allocate({.base = 0, .bytes = bytes, .device = 0, .pinned = true}, out);
}

int free_device(void* p) {
  return release(p, false);
}

int free_pinned(void* p) {
  return release(p, true);
}

bool nearest_allocation(uintptr_t address, Allocation* out) {
  Registry& all = registry();
  std::shared_lock lock(all.mutex);
  if (all.blocks.empty()) return false;
  const auto above = all.blocks.upper_bound(address);
  const auto below = above == all.blocks.begin() ? above : std::prev(above);
  const bool take_above = above != all.blocks.end() &&
                          distance(above->second, address) < distance(below->second, address);
  *out = take_above ? above->second : below->second;
  return true;
}

bool find_allocation(uintptr_t address, Allocation* out) {
  Allocation nearest;
  if (!nearest_allocation(address, &nearest) || distance(nearest, address) != 0) return false;
  *out = nearest;
  return true;
}

uint64_t allocation_generation() {
  return registry().generation.load(std::memory_order_acquire);
}

}  // namespace kevra_cpu
