// A vector whose values begin on a cache line: passes load 32 bytes at a time, and every second
// load of an array that lies 16 bytes off would touch two lines.
#pragma once

#include <cstddef>
#include <new>
#include <vector>

namespace kevra::host_fft {

template <class T>
struct CacheLineAllocator {
  using value_type = T;
  static constexpr std::align_val_t kLine{64};

  CacheLineAllocator() = default;
  template <class U>
  CacheLineAllocator(const CacheLineAllocator<U>&) {}  // NOLINT(google-explicit-constructor)

  T* allocate(size_t count) { return static_cast<T*>(::operator new(count * sizeof(T), kLine)); }
  void deallocate(T* values, size_t) { ::operator delete(values, kLine); }
  bool operator==(const CacheLineAllocator&) const { return true; }
};

template <class T>
using AlignedVector = std::vector<T, CacheLineAllocator<T>>;

}  // namespace kevra::host_fft
