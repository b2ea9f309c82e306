// Tables of bands from Python.
#pragma once

#include <pybind11/numpy.h>

#include <cstdint>

#include "cuda_like/ops/contrast.h"

namespace kevra::bindings {

using WholeNumbers =
    pybind11::array_t<int32_t, pybind11::array::c_style | pybind11::array::forcecast>;

// Edges or counts, called `name`; used in place where they are int32.
WholeNumbers whole_numbers(const char* name, const pybind11::object& object);

// The bands of Python callers. Lives as long as the call that it is the argument of.
struct BandArgument {
  BandArgument(const pybind11::object& edges, const pybind11::object& counts)
      : bt(whole_numbers("bt", edges)), bq(whole_numbers("bq", counts)) {}

  ops::ContrastOptions options(double amin, bool linear) const {
    return {{bt.data(), bt.size(), bq.data(), bq.size()}, amin, linear};
  }

  WholeNumbers bt;
  WholeNumbers bq;
};

}  // namespace kevra::bindings
