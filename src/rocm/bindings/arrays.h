// numpy arrays into and out of staged operations.
#pragma once

#include <pybind11/numpy.h>

#include <string>
#include <vector>

#include "cuda_like/staged.h"

namespace kevra::bindings {

// Whether the double twin serves: float64 and complex128 do, all else runs as float. Raises
// TypeError for float16. An object that is no array counts as float; its conversion reports the
// error.
bool is_double_input(const pybind11::object& object);

// A C-contiguous array of T, used in place where it fits and converted otherwise, and the view of
// it that an operation takes.
template <class T>
struct ContiguousArray {
  explicit ContiguousArray(const pybind11::object& object) : array(object) {}

  HostArray<T> view() const {
    return {array.data(), {array.shape(), array.shape() + array.ndim()}};
  }

  pybind11::array_t<T, pybind11::array::c_style | pybind11::array::forcecast> array;
};

// Wraps a result without a copy; its pinned block goes home when the array dies.
template <class T>
pybind11::array_t<T> to_numpy(PinnedArray<T>&& result) {
  pybind11::capsule owner(result.block.p, [](void* block) { pinned_free(block); });
  auto* data = static_cast<T*>(result.block.release());
  return pybind11::array_t<T>(result.shape, data, owner);
}

// The same for spectrograms, (batch, frames, bins) in memory: the view (batch, bins, frames).
template <class T>
pybind11::array_t<T> frames_last(PinnedArray<T>&& result) {
  const std::vector<int64_t> shape{result.shape[0], result.shape[2], result.shape[1]};
  const int64_t bins = shape[1];
  const int64_t bytes = sizeof(T);
  const std::vector<int64_t> strides{shape[2] * bins * bytes, bytes, bins * bytes};
  pybind11::capsule owner(result.block.p, [](void* block) { pinned_free(block); });
  auto* data = static_cast<T*>(result.block.release());
  return pybind11::array_t<T>(shape, strides, data, owner);
}

}  // namespace kevra::bindings
