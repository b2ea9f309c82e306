// Host arrays on their way into and out of a staged operation. Staged operations run on device
// 0 and the null stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "cuda_like/device.h"

namespace kevra {

// A C-contiguous array of the caller's, borrowed for the length of a call.
template <class T>
struct HostArray {
  const T* data;
  std::vector<int64_t> shape;

  size_t dims() const { return shape.size(); }
};

// A result in pinned memory, so that the copy from the device lands where the caller reads it.
template <class T>
struct PinnedArray {
  // Row-major and dense.
  explicit PinnedArray(std::vector<int64_t> dims)
      : shape(std::move(dims)), block(element_count(shape) * sizeof(T)) {}

  T* mutable_data() { return static_cast<T*>(block.p); }

  static size_t element_count(const std::vector<int64_t>& shape) {
    size_t count = 1;
    for (int64_t n : shape) count *= static_cast<size_t>(n);
    return count;
  }

  std::vector<int64_t> shape;
  PinnedBlock block;
};

// Copies host bytes into a device buffer on the null stream, through a pinned block: the source
// may be reused at once.
DeviceBuffer upload_staged(const void* host, size_t bytes);

template <class T>
DeviceBuffer upload_staged(const T* host, size_t count) {
  return upload_staged(static_cast<const void*>(host), count * sizeof(T));
}

}  // namespace kevra
