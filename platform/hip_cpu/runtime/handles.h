// Handles that callers hold, and the objects behind them. A dead handle is told from a live one.
#pragma once

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace kevra_cpu {

template <typename T>
class HandleTable {
 public:
  void* insert(std::shared_ptr<T> object) {
    void* handle = object.get();
    const std::unique_lock lock(mutex_);
    objects_.emplace(handle, std::move(object));
    return handle;
  }

  // Null when the handle is not, or no longer, one of these.
  std::shared_ptr<T> find(void* handle) const {
    const std::shared_lock lock(mutex_);
    const auto found = objects_.find(handle);
    return found == objects_.end() ? nullptr : found->second;
  }

  std::shared_ptr<T> remove(void* handle) {
    const std::unique_lock lock(mutex_);
    const auto node = objects_.extract(handle);
    return node.empty() ? nullptr : node.mapped();
  }

  // Never destroyed: calls may come in while the process ends.
  static HandleTable& instance() {
    static HandleTable& table = *new HandleTable;
    return table;
  }

 private:
  mutable std::shared_mutex mutex_;
  std::unordered_map<void*, std::shared_ptr<T>> objects_;
};

}  // namespace kevra_cpu
