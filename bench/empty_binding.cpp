// Bindings with the argument lists of the resident functions that do nothing: what a call costs
// before the runtime's own work begins.
#include <pybind11/pybind11.h>

#include <cstdint>

PYBIND11_MODULE(_empty_binding, m) {
  m.def("rms_resident", [](uintptr_t, uintptr_t, int64_t, int64_t, int64_t, int64_t, int64_t, bool,
                           int, int, uintptr_t) {});
  m.def("fft_resident", [](uintptr_t, uintptr_t, int64_t, int64_t, bool, int, int, uintptr_t) {});
  m.def("istft_resident",
        [](uintptr_t, uintptr_t, int64_t, int64_t, int64_t, int64_t, int64_t, int64_t, int64_t,
           int64_t, bool, int64_t, const pybind11::object&, int, int, uintptr_t) {});
  for (const char* name : {"rfft_resident", "irfft_resident"}) {
    m.def(name, [](uintptr_t, uintptr_t, int64_t, int64_t, int, int, uintptr_t) {});
  }
}
