// The window argument of Python callers.
#pragma once

#include <pybind11/numpy.h>

#include "cuda_like/window.h"

namespace kevra::bindings {

// A name, or a 1-D array of reals; ValueError for anything else. Lives as long as the call that it
// is the argument of.
struct WindowArgument {
  explicit WindowArgument(const pybind11::object& object);

  pybind11::array_t<double, pybind11::array::c_style | pybind11::array::forcecast> samples;
  WindowSpec spec;
};

}  // namespace kevra::bindings
