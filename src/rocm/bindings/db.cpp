#include "cuda_like/ops/db.h"

#include <cstdint>

#include "rocm/bindings/bindings.h"

namespace py = pybind11;

namespace kevra::bindings {

void bind_db(py::module_& m) {
  m.def(
      "db_resident",
      [](uintptr_t s, uintptr_t out, int64_t items, int64_t n, double mul, double amin, double cref,
         double topdb, bool hastop, int prec, int device, uintptr_t stream) {
        ops::db_resident(reinterpret_cast<devptr_t>(s), reinterpret_cast<devptr_t>(out),
                         {items, n, mul, amin, cref, topdb, hastop}, prec, device,
                         reinterpret_cast<stream_t>(stream));
      },
      py::arg("s_ptr"), py::arg("out_ptr"), py::arg("items"), py::arg("n"), py::arg("mul"),
      py::arg("amin"), py::arg("cref"), py::arg("topdb"), py::arg("hastop"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Decibels on device memory: out = mul * log10(max(s, amin)) - cref; queues the work and returns.

s_ptr, out_ptr: addresses on `device` of (items, n) values, row-major; may be the same.
mul: 10 for power, 20 for amplitude. cref: mul * log10 of the reference. amin: the least value, above 0.
hastop: raise every value of an item to at least topdb dB below the item's largest.
prec: 2 double, else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no items. Raises ValueError for a negative n, RuntimeError when HIP
fails. Source: ISO 80000-3:2006, quantities of level.)");
  m.def(
      "db_inv_resident",
      [](uintptr_t d, uintptr_t out, int64_t total, double mul, double ref, int prec, int device,
         uintptr_t stream) {
        ops::db_inv_resident(reinterpret_cast<devptr_t>(d), reinterpret_cast<devptr_t>(out), total,
                             mul, ref, prec, device, reinterpret_cast<stream_t>(stream));
      },
      py::arg("d_ptr"), py::arg("out_ptr"), py::arg("total"), py::arg("mul"), py::arg("ref"),
      py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      R"(From decibels back, on device memory: out = ref * 10^(d / mul); queues the work and returns.

d_ptr, out_ptr: addresses on `device` of `total` values; may be the same.
mul: 10 for power, 20 for amplitude. ref: the value of 0 dB, in the unit of the result.
prec: 2 double, else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for a negative total, RuntimeError when HIP fails.
Source: ISO 80000-3:2006, quantities of level.)");
}

}  // namespace kevra::bindings
