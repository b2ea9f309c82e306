// Caches that are filled on first use and never emptied.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace kevra::host_fft {

// The Value of `key`, made by build() when there is none. One map for every type of Value. The
// thread's last answer is looked at first, so that a repeated key costs one compare and no lock.
// build() runs under the map's mutex; if it throws, nothing is kept.
template <class Value, class Build>
const Value* cached(uint64_t key, const Build& build) {
  struct Cache {
    std::mutex mutex;
    std::unordered_map<uint64_t, std::unique_ptr<const Value>> entries;
  };
  struct Last {
    uint64_t key = UINT64_MAX;
    const Value* value = nullptr;
  };
  thread_local Last last;
  if (last.key == key) return last.value;
  static Cache& cache = *new Cache;  // outlives threads that still run at exit
  const std::lock_guard lock(cache.mutex);
  auto entry = cache.entries.find(key);
  if (entry == cache.entries.end()) {
    auto value = std::make_unique<const Value>(build());
    entry = cache.entries.emplace(key, std::move(value)).first;
  }
  last = {key, entry->second.get()};
  return last.value;
}

}  // namespace kevra::host_fft
