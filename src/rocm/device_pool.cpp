#include "rocm/device_pool.h"

#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>

#include "cuda_like/device.h"
#include "rocm/hip_dl.h"

namespace kevra {
namespace {

struct DeviceBlock {
  size_t size;
  int device;
};

// A list's place: device and stream.
using ListKey = std::pair<int, stream_t>;

struct DevicePool {
  std::mutex mutex;
  std::unordered_map<devptr_t, DeviceBlock> registry;  // in use and cached
  std::map<ListKey, BlockList> lists;
  std::map<stream_t, stream_t> lenders;  // by borrower
};

// Never destroyed: the HIP runtime may be gone when static objects die.
DevicePool& pool() {
  static auto* instance = new DevicePool;
  return *instance;
}

void drain_locked(DevicePool& p) {
  for (auto& [key, list] : p.lists) {
    if (p.lenders.contains(key.second)) continue;
    list.drain([&p](devptr_t block) {
      hip_dl::api().Free(block);
      p.registry.erase(block);
    });
  }
}

devptr_t allocate(DevicePool& p, size_t size, int device) {
  devptr_t block = nullptr;
  int r = hip_dl::api().Malloc(&block, size);
  if (r == hip_dl::kErrorOutOfMemory) {
    std::lock_guard lock(p.mutex);
    drain_locked(p);
    r = hip_dl::api().Malloc(&block, size);
  }
  KEVRA_CHECK_IN(r, "memAlloc");

  std::lock_guard lock(p.mutex);
  try {
    p.registry.emplace(block, DeviceBlock{size, device});
  } catch (const std::bad_alloc&) {
    hip_dl::api().Free(block);
    throw;
  }
  return block;
}

}  // namespace

devptr_t device_alloc(size_t bytes, stream_t stream) {
  const size_t size = block_size(bytes);
  DevicePool& p = pool();
  int device = 0;
  {
    std::lock_guard lock(p.mutex);
    device = current_device();
    if (devptr_t block = p.lists[{device, stream}].take(size)) return block;
    if (const auto loan = p.lenders.find(stream); loan != p.lenders.end()) {
      if (devptr_t block = p.lists[{device, loan->second}].take(size)) return block;
    }
  }
  return allocate(p, size, device);
}

devptr_t device_alloc_for_good(size_t bytes) {
  return allocate(pool(), block_size(bytes), current_device());
}

void device_free(devptr_t block, stream_t stream) noexcept {
  if (block == nullptr) return;
  DevicePool& p = pool();
  std::lock_guard lock(p.mutex);
  const auto it = p.registry.find(block);
  if (it == p.registry.end()) {
    hip_dl::api().Free(block);
    return;
  }
  try {
    p.lists[{it->second.device, stream}].put(it->second.size, block);
  } catch (const std::bad_alloc&) {
    if (p.lenders.contains(stream)) return;  // a graph may use it yet
    p.registry.erase(it);
    hip_dl::api().Free(block);
  }
}

StreamLoan::StreamLoan(stream_t borrower, stream_t lender) : borrower_(borrower) {
  DevicePool& p = pool();
  std::lock_guard lock(p.mutex);
  p.lenders.emplace(borrower, lender);
}

StreamLoan::~StreamLoan() {
  DevicePool& p = pool();
  std::lock_guard lock(p.mutex);
  const stream_t lender = p.lenders.extract(borrower_).mapped();
  // The lists move as they are: this may not need memory.
  for (auto it = p.lists.begin(); it != p.lists.end();) {
    const auto own = it++;
    if (own->first.second != borrower_) continue;
    auto node = p.lists.extract(own);
    node.key().second = lender;
    const auto merged = p.lists.insert(std::move(node));
    if (!merged.inserted) merged.position->second.put_all(merged.node.mapped());
  }
}

void device_drain() {
  DevicePool& p = pool();
  std::lock_guard lock(p.mutex);
  drain_locked(p);
}

PoolFigures device_pool_figures() {
  DevicePool& p = pool();
  std::lock_guard lock(p.mutex);
  PoolFigures figures;
  for (const auto& [block, entry] : p.registry) figures.in_use_bytes += entry.size;
  for (const auto& [key, list] : p.lists) {
    figures.cached_blocks += list.blocks();
    figures.cached_bytes += list.bytes();
  }
  figures.in_use_blocks = p.registry.size() - figures.cached_blocks;
  figures.in_use_bytes -= figures.cached_bytes;
  return figures;
}

}  // namespace kevra
