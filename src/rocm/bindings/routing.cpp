#include <pybind11/stl.h>

#include <string>

#include "cuda_like/hints.h"
#include "cuda_like/ops/route_explain.h"
#include "rocm/bindings/bindings.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

void store_hint(const std::string& op, int n_fft, int hop, bool center, int prec,
                const std::string& output, int extra, int device, int ept, int fpb, int tpf,
                int core, int var) {
  const HintShape shape{.op = HintOp::kFft,  // replaced by op's
                        .n = n_fft,
                        .hop = hop,
                        .center = center,
                        .bits = prec,
                        .extra = extra,
                        .device = device};
  set_shape_hint(op, shape, output, {ept, fpb, tpf, core, var});
}

py::dict route_report(const std::string& op, int64_t n_fft, int prec, int device) {
  py::dict report;
  for (const auto& [key, value] : ops::route_explain(op, n_fft, prec, device)) {
    report[py::str(key)] = py::cast(value);
  }
  return report;
}

}  // namespace

void bind_routing(py::module_& m) {
  m.def("set_shape_hint", &store_hint, py::arg("op"), py::arg("n_fft"), py::arg("hop"),
        py::arg("center"), py::arg("prec"), py::arg("output"), py::arg("extra"), py::arg("device"),
        py::arg("ept"), py::arg("fpb"), py::arg("tpf"), py::arg("core"), py::arg("var") = 0,
        R"(Stores a wish for one exact shape and moves shape_epoch.

op: stft, istft, mel, fft, rfft or cqt (ValueError otherwise). prec: storage width in bits: 64, 32,
16, or 8 for packed 16-bit arithmetic. For fft: hop 0, center = inverse, extra 0.
ept elements per thread, fpb transforms per block, tpf threads per transform, core the kernel (for
fft 1 shared-memory, 2 register), var variant bits (for fft 1 radix 25, 2 half exchange, 4 padded,
8 the other exchange layout); zero or below is no wish. A wish that cannot be honoured is lowered
or passed over.)");
  m.def("shape_epoch", &shape_epoch, "How often the hint table has changed.");
  m.def("shape_hint_clear", &shape_hint_clear, "Empties the hint table and moves shape_epoch.");
  m.def(
      "route_explain", &route_report, py::arg("op"), py::arg("n_fft"), py::arg("prec"),
      py::arg("device") = 0,
      R"(The default route of a size, as a dict: schedule, prime stage, Bluestein length, shared memory and
core; hints are not applied.

op: stft, mel, istft, fft or rfft (ValueError otherwise). prec: 0 half, 1 float, 2 double.)");
}

}  // namespace kevra::bindings
