#include "rocm/bindings/banks.h"

#include <stdexcept>

namespace py = pybind11;

namespace kevra::bindings {

BankArgument::BankArgument(const py::object& object, const std::string& refusal)
    : array(object), bank{} {
  if (array.ndim() != 2) {
    if (!refusal.empty()) throw std::invalid_argument(refusal);
    throw std::invalid_argument("mel: fb has " + std::to_string(array.ndim()) +
                                " dimensions, must be a 2-D (n_mels, n_fft // 2 + 1) array");
  }
  bank = filter_bank(array.data(), array.shape(0), array.shape(1));
}

}  // namespace kevra::bindings
