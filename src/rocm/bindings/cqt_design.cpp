#include "rocm/bindings/cqt_design.h"

#include <pybind11/complex.h>

#include <complex>
#include <stdexcept>
#include <string_view>

namespace py = pybind11;

namespace kevra::bindings {
namespace {

constexpr std::string_view kReal = "fiub";
constexpr std::string_view kComplex = "cfiub";

// Numbers of `dims` dimensions, each named in what is told of another.
py::array numbers(const py::handle& object, int dims, std::string_view kinds,
                  const std::string& name, const char* meaning) {
  py::array array = py::isinstance<py::array>(object) ? py::reinterpret_borrow<py::array>(object)
                                                      : py::array::ensure(object);
  if (!array) {
    PyErr_Clear();
    throw std::invalid_argument(name + " is no array, must be " + meaning);
  }
  if (array.ndim() < dims) {
    throw std::invalid_argument("invalid axis: " + name + " has " + std::to_string(array.ndim()) +
                                " dimensions, must be " + meaning);
  }
  if (array.ndim() > dims || kinds.find(array.dtype().kind()) == kinds.npos) {
    throw std::invalid_argument(name + " has " + std::to_string(array.ndim()) +
                                " dimensions of type " + std::string(py::str(array.dtype())) +
                                ", must be " + meaning);
  }
  return array;
}

template <class T>
std::vector<T> values_of(const py::array& array) {
  const py::array_t<T, py::array::c_style | py::array::forcecast> dense(array);
  return {dense.data(), dense.data() + dense.size()};
}

// Real and imaginary parts in turn.
std::vector<double> parts_of(const py::array& array) {
  const auto values = values_of<std::complex<double>>(array);
  const auto* parts = reinterpret_cast<const double*>(values.data());
  return {parts, parts + 2 * values.size()};
}

// `array` stays where it is for as long as the matrix.
ops::LazyMatrix lazy(const py::array& array) {
  const bool is_row = array.ndim() == 1;
  return {is_row ? 1 : array.shape(0), array.shape(is_row ? 0 : 1),
          [&array] { return values_of<double>(array); }};
}

int64_t whole(const py::handle& object, const std::string& name, const char* item) {
  const py::object number = py::reinterpret_steal<py::object>(PyNumber_Index(object.ptr()));
  const int64_t value = number ? PyLong_AsLongLong(number.ptr()) : -1;
  if (PyErr_Occurred() != nullptr) {
    PyErr_Clear();
    throw std::invalid_argument(name + ": " + item + " is " + std::string(py::repr(object)) +
                                ", must be a whole number of 64 bits");
  }
  return value;
}

py::tuple items_of(const py::handle& object, const std::string& name, size_t count,
                   const char* items) {
  const bool is_sequence = py::isinstance<py::tuple>(object) || py::isinstance<py::list>(object);
  if (!is_sequence || py::len(object) != count) {
    throw std::invalid_argument(name + " must be a tuple of " + items);
  }
  return py::reinterpret_borrow<py::object>(object);
}

}  // namespace

DesignArgument::DesignArgument(const char* op, int64_t n_levels, const py::list& octaves,
                               const py::object& taps, const std::string& plan_key, int64_t n_bins,
                               int64_t frames)
    : design{n_levels, {}, {}, plan_key, n_bins, frames} {
  constexpr const char* kBasis = "a 2-D (rows, n_fft // 2 + 1) array of reals";
  // Never moved: the readers refer to places in it.
  arrays_.reserve(2 * octaves.size() + 1);
  records_.reserve(octaves.size());
  const auto matrix = [&](const py::handle& object, const std::string& name) {
    return lazy(arrays_.emplace_back(numbers(object, 2, kReal, name, kBasis)));
  };
  for (size_t i = 0; i < octaves.size(); ++i) {
    const std::string name = ops::octave_name(op, i);
    const py::tuple items = items_of(octaves[i], name, 6, "level, hop, n_fft, row_lo, br and bi");
    records_.push_back({.level = whole(items[0], name, "level"),
                        .hop = whole(items[1], name, "hop"),
                        .n_fft = whole(items[2], name, "n_fft"),
                        .row_lo = whole(items[3], name, "row_lo"),
                        .br = matrix(items[4], name + ": br"),
                        .bi = matrix(items[5], name + ": bi")});
  }
  design.octaves = records_;
  design.taps = lazy(arrays_.emplace_back(
      numbers(taps, 1, kReal, std::string(op) + ": taps", "a 1-D array of 65 reals")));
}

DualsArgument::DualsArgument(const char* op, const py::list& octaves) {
  arrays_.reserve(octaves.size());  // never moved: the readers refer to places in it
  for (size_t i = 0; i < octaves.size(); ++i) {
    const std::string name = ops::octave_name(op, i);
    const py::tuple items = items_of(octaves[i], name, 5, "s, n_d, row_lo, rows and D");
    const py::array& filters =
        arrays_.emplace_back(numbers(items[4], 2, kComplex, name + ": D",
                                     "a 2-D (rows, n_d // 2 + 1) array of complex numbers"));
    records.push_back({.shift = whole(items[0], name, "s"),
                       .n_d = whole(items[1], name, "n_d"),
                       .row_lo = whole(items[2], name, "row_lo"),
                       .rows = whole(items[3], name, "rows"),
                       .filters = {filters.shape(0), 2 * filters.shape(1),
                                   [&filters] { return parts_of(filters); }}});
  }
}

ClassesArgument::ClassesArgument(const char* op, const py::object& object)
    : array_(numbers(object, 1, "iub", std::string(op) + ": classes",
                     "a 1-D array of whole numbers")) {
  classes = {array_.size(), [this] { return values_of<int64_t>(array_); }};
}

}  // namespace kevra::bindings
