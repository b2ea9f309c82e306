#include "cuda_like/ops/icqt.h"

#include <complex>
#include <cstdint>
#include <string>

#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/cqt_design.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

constexpr const char* kOp = "icqt";

template <class T>
py::object direct_staged(const py::object& c, const ops::IcqtCall& call) {
  const ContiguousArray<std::complex<T>> input(c);
  return to_numpy(ops::icqt_direct_staged<T>(input.view(), call));
}

}  // namespace

void bind_icqt(py::module_& m) {
  m.def(
      "icqt_direct_staged",
      [](const py::object& c, int64_t length, int64_t n_bins, int64_t frames, int64_t hop,
         const py::list& octaves, const std::string& plan_key) {
        const bool wide = is_double_input(c);
        const DualsArgument duals(kOp, octaves);
        const ops::IcqtCall call{.c = nullptr,
                                 .y = nullptr,
                                 .batch = 0,
                                 .n_bins = n_bins,
                                 .frames = frames,
                                 .hop = hop,
                                 .length = length,
                                 .octaves = duals.records,
                                 .plan_key = plan_key};
        return wide ? direct_staged<double>(c, call) : direct_staged<float>(c, call);
      },
      py::arg("C"), py::arg("length"), py::arg("n_bins"), py::arg("frames"), py::arg("hop"),
      py::arg("octaves"), py::arg("plan_key"),
      R"(Signals from a complex constant-Q transform by dual filters of the caller's: a direct estimate, as good as the
filters are. In every octave, frame t is the inverse real Fourier transform, n_d * 2**s samples long, of

    X_t[j] = sum over k < rows of  C[row_lo + k, t] D[k, j]     for j <= n_d // 2, above that 0

and it begins at sample t * hop of the result. A sample is 2**s times the mean of the octave's frames that reach over
it, 0 where none does; the octaves are added up.

C: array (batch, n_bins, frames); complex128 is computed in double, all else in float.
length: samples of the result. hop: in samples of the result.
octaves: list of tuples (s, n_d, row_lo, rows, D), D being a complex array (rows, n_d // 2 + 1). No two share an s.
plan_key: stands for the filters, which are uploaded once for a key and an s; every set of them needs a key of its own,
which may be that of the transform's plan.
Returns (batch, length).
Raises ValueError for bad shapes, sizes and octaves, naming the record; TypeError for float16, RuntimeError when HIP
fails.
Source: G. A. Velasco, N. Holighaus, M. Doerfler and T. Grill, Constructing an invertible constant-Q transform with
nonstationary Gabor frames, DAFx 2011 (dual frames).)");
  m.def(
      "icqt_direct_resident",
      [](uintptr_t c_ptr, uintptr_t y_ptr, int64_t batch, int64_t n_bins, int64_t frames,
         int64_t hop, int64_t length, const py::list& octaves, const std::string& plan_key,
         int prec, int device, uintptr_t stream) {
        const DualsArgument duals(kOp, octaves);
        ops::icqt_direct_resident({.c = reinterpret_cast<devptr_t>(c_ptr),
                                   .y = reinterpret_cast<devptr_t>(y_ptr),
                                   .batch = batch,
                                   .n_bins = n_bins,
                                   .frames = frames,
                                   .hop = hop,
                                   .length = length,
                                   .octaves = duals.records,
                                   .plan_key = plan_key,
                                   .device = device,
                                   .stream = reinterpret_cast<stream_t>(stream)},
                                  prec);
      },
      py::arg("c_ptr"), py::arg("y_ptr"), py::arg("batch"), py::arg("n_bins"), py::arg("frames"),
      py::arg("hop"), py::arg("length"), py::arg("octaves"), py::arg("plan_key"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(The direct inverse of a constant-Q transform on device memory; queues the work on `stream` and returns.

c_ptr, y_ptr: addresses on `device` of (batch, n_bins, frames) complex numbers and of (batch, length) reals, row-major;
y is overwritten. hop, octaves, plan_key: as in icqt_direct_staged; the filters are host arrays.
prec: 1 float, 2 double; 0, half storage, is refused. stream: raw handle, 0 the null stream.
Scratch is an octave's frames at a time, batch x frames x n_d 2**s numbers and their spectra. Pointers are not checked.
The first call for a plan_key uploads its filters and waits for that. Raises ValueError for sizes out of bounds and half
storage, RuntimeError when HIP fails.
Source: as icqt_direct_staged.)");
}

}  // namespace kevra::bindings
