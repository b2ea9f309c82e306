#include "rocm/bindings/windows.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace py = pybind11;

namespace kevra::bindings {
namespace {

py::array real_row(const py::object& object) {
  py::array array = py::array::ensure(object);
  constexpr std::string_view kReal = "fiub";
  if (!array || array.ndim() != 1 || kReal.find(array.dtype().kind()) == kReal.npos) {
    throw std::invalid_argument("window must be a name or a 1-D float array");
  }
  return array;
}

}  // namespace

WindowArgument::WindowArgument(const py::object& object) : spec{} {
  if (py::isinstance<py::str>(object)) {
    spec = named_window(object.cast<std::string>());
    return;
  }
  samples = real_row(object);
  spec = array_window(samples.data(), samples.size());
}

}  // namespace kevra::bindings
