// The atomic additions of a group of blocks in lanes, until the group has come to its end.
#pragma once

#include <cstddef>
#include <cstring>
#include <vector>

namespace kevra_cpu {

class PendingAdditions {
 public:
  using Make = void (*)(void* first, long long step, const void* values);

  void note(Make make, void* first, long long step, const void* values, unsigned bytes) {
    const size_t at = values_.size();
    values_.resize(at + bytes);
    std::memcpy(values_.data() + at, values, bytes);
    additions_.push_back({make, first, step, at});
  }
  void make() {
    for (const Addition& a : additions_) a.make(a.first, a.step, values_.data() + a.values);
    clear();
  }
  void clear() {
    additions_.clear();
    values_.clear();
  }

 private:
  struct Addition {
    Make make;
    void* first;
    long long step;
    size_t values;
  };

  std::vector<Addition> additions_;
  std::vector<std::byte> values_;
};

}  // namespace kevra_cpu
