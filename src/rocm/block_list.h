// What the device and the pinned pool have in common: cached blocks by size, and figures.
#pragma once

#include <algorithm>
#include <cstddef>
#include <map>

namespace kevra {

// Smaller requests count as this many bytes.
inline constexpr size_t kSmallestBlock = 256;
inline size_t block_size(size_t bytes) {
  return std::max(bytes, kSmallestBlock);
}

// Cached blocks, smallest first, oldest first among equals.
class BlockList {
 public:
  // The smallest block that holds `size` bytes, removed from the list; null when there is none or
  // when it would waste more than half of itself.
  void* take(size_t size) {
    const auto it = blocks_.lower_bound(size);
    if (it == blocks_.end() || it->first > 2 * size) return nullptr;
    void* block = it->second;
    blocks_.erase(it);
    return block;
  }

  void put(size_t size, void* block) { blocks_.emplace(size, block); }

  void put_all(BlockList& other) { blocks_.merge(other.blocks_); }

  // Hands every block to `free_block` and empties the list.
  template <class Free>
  void drain(Free free_block) {
    for (const auto& [size, block] : blocks_) free_block(block);
    blocks_.clear();
  }

  size_t blocks() const { return blocks_.size(); }
  size_t bytes() const {
    size_t sum = 0;
    for (const auto& [size, block] : blocks_) sum += size;
    return sum;
  }

 private:
  std::multimap<size_t, void*> blocks_;
};

struct PoolFigures {
  size_t in_use_blocks = 0;
  size_t in_use_bytes = 0;
  size_t cached_blocks = 0;
  size_t cached_bytes = 0;
};

}  // namespace kevra
