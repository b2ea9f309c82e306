#include "rocm/bindings/arrays.h"

namespace py = pybind11;

namespace kevra::bindings {

bool is_double_input(const py::object& object) {
  const py::array array = py::array::ensure(object);
  if (!array) return false;
  const char kind = array.dtype().kind();
  const auto size = array.itemsize();
  if (kind == 'f' && size == 2) {
    throw py::type_error("float16 input is not supported here; cast to float32");
  }
  return (kind == 'f' && size == 8) || (kind == 'c' && size == 16);
}

}  // namespace kevra::bindings
