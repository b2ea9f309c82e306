// What a group of blocks has overwritten, so that a group that diverges leaves no trace.
#pragma once

#include <cstddef>
#include <cstring>
#include <vector>

namespace kevra_cpu {

class StoreLog {
 public:
  void clear() {
    entries_.clear();
    bytes_.clear();
  }

  void save(void* address, size_t count) {
    entries_.push_back({address, count});
    const auto* from = static_cast<const std::byte*>(address);
    bytes_.insert(bytes_.end(), from, from + count);
  }

  // Latest first, since an address may have been stored to more than once.
  void undo() {
    const std::byte* from = bytes_.data() + bytes_.size();
    for (size_t i = entries_.size(); i-- > 0;) {
      from -= entries_[i].count;
      std::memcpy(entries_[i].address, from, entries_[i].count);
    }
    clear();
  }

 private:
  struct Entry {
    void* address;
    size_t count;
  };
  std::vector<Entry> entries_;
  std::vector<std::byte> bytes_;
};

}  // namespace kevra_cpu
