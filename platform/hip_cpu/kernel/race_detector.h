// Races of one kind of memory between two meetings: shared memory between the threads of a block,
// device memory between the blocks of a grid.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "kernel/shadow.h"

namespace kevra_cpu {

struct Race {
  bool found = false;
  uint32_t other = 0;  // thread or block of the earlier access
  ShadowByte::State seen = ShadowByte::untouched;
};

// The bytes of a block's shared memory.
class SharedRaces {
 public:
  void begin_block(unsigned threads);
  void pass_barrier();
  void pass_shuffle(unsigned group);

  Race note(size_t offset, unsigned bytes, unsigned thread, Access access);

 private:
  static constexpr uint32_t group_size = 32;

  uint32_t new_round(unsigned group);

  std::vector<ShadowByte> shadow_;
  unsigned groups_ = 0;
  uint32_t base_ = 0;               // first number since the last barrier
  uint32_t next_ = group_size;      // number for the next round
  std::vector<uint32_t> round_;     // by group: number of its first thread in this round
  std::vector<unsigned> group_of_;  // by round since the last barrier
};

// The bytes of all device memory. Its shadow is mapped on first touch and four times as large.
class DeviceRaces {
 public:
  void begin_launch(uint64_t blocks);

  // `base` and `total` are the allocation that holds the address.
  Race note(uintptr_t base, size_t total, uintptr_t address, unsigned bytes, uint64_t block,
            Access access);
  // Forgets the shadow of allocations for which `live(base, bytes)` is false.
  template <typename Live>
  void keep(Live live) {
    last_ = nullptr;
    std::erase_if(shadows_, [&](const auto& s) { return !live(s.first, s.second.bytes()); });
  }

 private:
  // Zeroed memory that costs nothing where it is not touched.
  class Shadow {
   public:
    Shadow(uintptr_t base, size_t bytes);
    ~Shadow();
    Shadow(Shadow&& other) noexcept;
    Shadow& operator=(Shadow&&) = delete;
    uintptr_t base() const { return base_; }
    size_t bytes() const { return bytes_; }
    ShadowByte* at(uintptr_t address) { return states_ + (address - base_); }

   private:
    uintptr_t base_;
    size_t bytes_;
    ShadowByte* states_;
  };

  Shadow& shadow(uintptr_t base, size_t total);

  std::map<uintptr_t, Shadow> shadows_;
  Shadow* last_ = nullptr;
  uint32_t base_ = 1;  // number of this launch's first block
  uint32_t next_ = 1;
};

}  // namespace kevra_cpu
