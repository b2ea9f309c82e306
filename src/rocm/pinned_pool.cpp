#include "rocm/pinned_pool.h"

#include <mutex>
#include <new>
#include <unordered_map>

#include "cuda_like/device.h"
#include "rocm/hip_dl.h"

namespace kevra {
namespace {

struct PinnedPool {
  std::mutex mutex;
  std::unordered_map<void*, size_t> registry;  // sizes, in use and cached
  BlockList list;
};

// Never destroyed: arrays that live to the end of the process release their blocks late.
PinnedPool& pool() {
  static auto* instance = new PinnedPool;
  return *instance;
}

}  // namespace

void* pinned_alloc(size_t bytes) {
  const size_t size = block_size(bytes);
  PinnedPool& p = pool();
  {
    std::lock_guard lock(p.mutex);
    if (void* block = p.list.take(size)) return block;
  }

  void* block = nullptr;
  int r = hip_dl::api().HostMalloc(&block, size, 0);
  if (r != 0) {
    pinned_drain();
    r = hip_dl::api().HostMalloc(&block, size, 0);
  }
  KEVRA_CHECK_IN(r, "hipHostMalloc");

  std::lock_guard lock(p.mutex);
  try {
    p.registry.emplace(block, size);
  } catch (const std::bad_alloc&) {
    hip_dl::api().HostFree(block);
    throw;
  }
  return block;
}

void pinned_free(void* block) noexcept {
  if (block == nullptr) return;
  PinnedPool& p = pool();
  std::lock_guard lock(p.mutex);
  const auto it = p.registry.find(block);
  if (it == p.registry.end()) {
    hip_dl::api().HostFree(block);
    return;
  }
  try {
    p.list.put(it->second, block);
  } catch (const std::bad_alloc&) {
    p.registry.erase(it);
    hip_dl::api().HostFree(block);
  }
}

void pinned_drain() {
  PinnedPool& p = pool();
  std::lock_guard lock(p.mutex);
  p.list.drain([&p](void* block) {
    hip_dl::api().HostFree(block);
    p.registry.erase(block);
  });
}

PoolFigures pinned_pool_figures() {
  PinnedPool& p = pool();
  std::lock_guard lock(p.mutex);
  PoolFigures figures{.cached_blocks = p.list.blocks(), .cached_bytes = p.list.bytes()};
  for (const auto& [block, size] : p.registry) figures.in_use_bytes += size;
  figures.in_use_blocks = p.registry.size() - figures.cached_blocks;
  figures.in_use_bytes -= figures.cached_bytes;
  return figures;
}

}  // namespace kevra
