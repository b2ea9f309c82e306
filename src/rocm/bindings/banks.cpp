#include "rocm/bindings/banks.h"

#include <stdexcept>
#include <string>

namespace py = pybind11;

namespace kevra::bindings {

BankArgument::BankArgument(const py::object& object) : array(object), bank{} {
  if (array.ndim() != 2) {
    throw std::invalid_argument("mel: fb has " + std::to_string(array.ndim()) +
                                " dimensions, must be a 2-D (n_mels, n_fft // 2 + 1) array");
  }
  bank = filter_bank(array.data(), array.shape(0), array.shape(1));
}

}  // namespace kevra::bindings
