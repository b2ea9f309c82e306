#include <cstdint>
#include <string>

#include "cuda_like/hints.h"
#include "cuda_like/ops/chroma_adjoint.h"
#include "cuda_like/ops/cqt_adjoint.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/cqt_design.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

void bind_cqt_adjoint(py::module_& m) {
  m.def(
      "cqt_adjoint_resident",
      [](uintptr_t x_ptr, uintptr_t g_ptr, uintptr_t gx_ptr, int64_t batch, int64_t length,
         int64_t n_levels, const py::list& octaves, const py::object& taps,
         const std::string& plan_key, int64_t n_bins, int64_t frames, const std::string& output,
         double eps, int prec, int device, uintptr_t stream) {
        constexpr const char* kOp = "cqt_adjoint";
        const DesignArgument argument(kOp, n_levels, octaves, taps, plan_key, n_bins, frames);
        ops::cqt_adjoint_resident({.forward = {.op = kOp,
                                               .x = reinterpret_cast<devptr_t>(x_ptr),
                                               .out = nullptr,
                                               .batch = batch,
                                               .length = length,
                                               .design = argument.design,
                                               .form = output_form(output),
                                               .eps = eps,
                                               .device = device,
                                               .stream = reinterpret_cast<stream_t>(stream)},
                                   .g = reinterpret_cast<devptr_t>(g_ptr),
                                   .gx = reinterpret_cast<devptr_t>(gx_ptr)},
                                  prec);
      },
      py::arg("x_ptr"), py::arg("g_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("length"),
      py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("plan_key"),
      py::arg("n_bins"), py::arg("frames"), py::arg("output"), py::arg("eps"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Gradient of a function E of a constant-Q transform C with respect to the signal x; queues the work on `stream` and
returns.

x_ptr: address on `device` of (batch, length) samples, the forward pass's; not read for the complex output.
g_ptr: address of (batch, n_bins, frames) values, row-major: dE/dRe C + i dE/dIm C, complex, for the complex output, for
the others dE/d of the magnitude, power or decibels, real. gx_ptr: address of (batch, length) samples, overwritten; of no
frames the gradient is 0.
n_levels, octaves, taps, plan_key, n_bins, frames, output, eps: as in cqt_staged, whose tables serve here too; the
arrays are host arrays. Octaves that share a level all count.
prec: 1 float, 2 double; half storage is refused. stream: raw handle, 0 the null stream.
A magnitude of 0 has the gradient 0, and so have decibels of a power below 1e-30 (double: 1e-300) with such an eps.
Frames are added by atomics, in any order; after set_deterministic(1) in theirs, which takes more memory.
Pointers are not checked. The first call for a plan_key uploads its tables and waits for that. Raises ValueError for
sizes out of bounds and for half, RuntimeError when HIP fails.
Source: the transpose of the transform in J. C. Brown and M. S. Puckette, An efficient algorithm for the calculation of
a constant Q transform, J. Acoust. Soc. Am. 92, 1992.)");
}

void bind_chroma_adjoint(py::module_& m) {
  m.def(
      "chroma_adjoint_resident",
      [](uintptr_t x_ptr, uintptr_t g_ptr, uintptr_t gx_ptr, int64_t batch, int64_t length,
         int64_t n_levels, const py::list& octaves, const py::object& taps,
         const py::object& classes, const std::string& plan_key, int64_t n_bins, int64_t n_chroma,
         int64_t frames, int prec, int device, uintptr_t stream) {
        constexpr const char* kOp = "chroma_adjoint";
        const DesignArgument argument(kOp, n_levels, octaves, taps, plan_key, n_bins, frames);
        const ClassesArgument of_bins(kOp, classes);
        ops::chroma_adjoint_resident({.forward = {.x = reinterpret_cast<devptr_t>(x_ptr),
                                                  .out = nullptr,
                                                  .batch = batch,
                                                  .length = length,
                                                  .design = argument.design,
                                                  .device = device,
                                                  .stream = reinterpret_cast<stream_t>(stream)},
                                      .g = reinterpret_cast<devptr_t>(g_ptr),
                                      .gx = reinterpret_cast<devptr_t>(gx_ptr)},
                                     {of_bins.classes, n_chroma}, prec);
      },
      py::arg("x_ptr"), py::arg("g_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("length"),
      py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("classes"),
      py::arg("plan_key"), py::arg("n_bins"), py::arg("n_chroma"), py::arg("frames"),
      py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      R"(Gradient of a function E of chroma with respect to the signal x, the peaks that divide the frames being taken for
constants; queues the work on `stream` and returns.

So E is a function of the sums by pitch class, each over what the frame's largest happens to be: the derivative of
chroma proper has one more term, by which scaling a frame changes nothing.

x_ptr: address on `device` of (batch, length) samples, the forward pass's. g_ptr: address of (batch, n_chroma, frames)
values, dE/dchroma, row-major. gx_ptr: address of (batch, length) samples, overwritten; of no frames the gradient is 0.
n_levels, octaves, taps, classes, plan_key, n_bins, n_chroma, frames: as in chroma_staged; the arrays are host arrays.
prec: 1 float, 2 double; half storage is refused. stream: raw handle, 0 the null stream.
A magnitude of 0 has the gradient 0: so has silence. Order of additions, pointers and tables: as in
cqt_adjoint_resident. Raises ValueError and RuntimeError as that does.
Source: as chroma_staged.)");
}

}  // namespace

void bind_cqt_gradients(py::module_& m) {
  bind_cqt_adjoint(m);
  bind_chroma_adjoint(m);
}

}  // namespace kevra::bindings
