// The filter bank argument of Python callers.
#pragma once

#include <pybind11/numpy.h>

#include <string>

#include "cuda_like/filter_bank.h"

namespace kevra::bindings {

// A 2-D array of reals; ValueError for anything else. Lives as long as the call that it is the
// argument of.
struct BankArgument {
  // `refusal`, where there is one, is the text for an array of other dimensions.
  explicit BankArgument(const pybind11::object& object, const std::string& refusal = "");

  pybind11::array_t<double, pybind11::array::c_style | pybind11::array::forcecast> array;
  FilterBank bank;
};

}  // namespace kevra::bindings
