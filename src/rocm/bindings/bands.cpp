#include "rocm/bindings/bands.h"

#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>

namespace py = pybind11;

namespace kevra::bindings {

WholeNumbers whole_numbers(const char* name, const py::object& object) {
  using Limits = std::numeric_limits<int32_t>;
  const py::array array = py::array::ensure(object);
  constexpr std::string_view kWhole = "iub";
  // numpy takes an empty list for floats
  const bool whole =
      array && (array.size() == 0 || kWhole.find(array.dtype().kind()) != kWhole.npos);
  if (!whole || array.ndim() != 1) {
    throw std::invalid_argument(std::string("contrast: ") + name +
                                " must be a 1-D array of whole numbers");
  }
  const bool narrow = array.dtype().kind() == 'i' && array.itemsize() == sizeof(int32_t);
  if (!narrow) {
    const py::array_t<int64_t, py::array::c_style | py::array::forcecast> wide(array);
    for (py::ssize_t i = 0; i < wide.size(); ++i) {
      if (wide.data()[i] < Limits::min() || wide.data()[i] > Limits::max()) {
        throw std::invalid_argument(std::string("contrast: ") + name + "[" + std::to_string(i) +
                                    "] is " + std::to_string(wide.data()[i]) +
                                    ", must fit 32 bits");
      }
    }
  }
  return WholeNumbers(array);
}

}  // namespace kevra::bindings
