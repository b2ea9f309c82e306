#include "cuda_like/ops/icqt.h"

#include <complex>
#include <cstdint>
#include <string>

#include "cuda_like/ops/icqt_solver.h"
#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/cqt_design.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

constexpr const char* kOp = "icqt";

template <class T>
py::array direct_staged(const py::object& c, const ops::IcqtCall& call) {
  const ContiguousArray<std::complex<T>> input(c);
  return to_numpy(ops::icqt_direct_staged<T>(input.view(), call));
}

template <class T>
py::array cg_staged(const py::object& c, const py::object& y0, const ops::CqtDesign& design,
                    int64_t n_iter) {
  const ContiguousArray<std::complex<T>> bins(c);
  const ContiguousArray<T> start(y0);
  return to_numpy(ops::icqt_cg_staged<T>(bins.view(), start.view(), design, n_iter));
}

void bind_solver(py::module_& m) {
  m.def(
      "icqt_cg_staged",
      [](const py::object& c, const py::object& y0, int64_t n_levels, const py::list& octaves,
         const py::object& taps, const std::string& plan_key, int64_t n_bins, int64_t frames,
         int64_t n_iter) {
        const bool wide = is_double_input(c);
        const DesignArgument argument(kOp, n_levels, octaves, taps, plan_key, n_bins, frames);
        return wide ? cg_staged<double>(c, y0, argument.design, n_iter)
                    : cg_staged<float>(c, y0, argument.design, n_iter);
      },
      py::arg("C"), py::arg("y0"), py::arg("n_levels"), py::arg("octaves"), py::arg("taps"),
      py::arg("plan_key"), py::arg("n_bins"), py::arg("frames"), py::arg("n_iter"),
      R"(Signals from a complex constant-Q transform by least squares: n_iter steps of the conjugate-gradient method on
A' A y = A' C, A being cqt_staged's transform and A' its adjoint, towards the y whose transform is nearest to C. What
the transform does not show stays as it is in y0.

C: array (batch, n_bins, frames); complex128 is computed in double, all else in float.
y0: real array (batch, samples), where to start: zeros, or an estimate such as icqt_direct_staged's.
n_levels, octaves, taps, plan_key, n_bins, frames: the design of the transform, as in cqt_staged.
n_iter: steps; y0 is given back below 1. There is no test of convergence, and a row that has converged stays.
Returns (batch, samples).
Raises ValueError for bad shapes, sizes and designs, naming the record; TypeError for float16, RuntimeError when HIP
fails.
Source: M. R. Hestenes and E. Stiefel, Methods of conjugate gradients for solving linear systems, J. Res. Natl. Bur.
Stand. 49, 1952; on the normal equations: A. Bjoerck, Numerical methods for least squares problems, SIAM 1996.)");
  m.def(
      "icqt_cg_resident",
      [](uintptr_t c_ptr, uintptr_t y_ptr, int64_t batch, int64_t length, int64_t n_levels,
         const py::list& octaves, const py::object& taps, const std::string& plan_key,
         int64_t n_bins, int64_t frames, int64_t n_iter, int prec, int device, uintptr_t stream) {
        const DesignArgument argument(kOp, n_levels, octaves, taps, plan_key, n_bins, frames);
        ops::icqt_cg_resident({.c = reinterpret_cast<devptr_t>(c_ptr),
                               .y = reinterpret_cast<devptr_t>(y_ptr),
                               .batch = batch,
                               .length = length,
                               .design = argument.design,
                               .n_iter = n_iter,
                               .device = device,
                               .stream = reinterpret_cast<stream_t>(stream)},
                              prec);
      },
      py::arg("c_ptr"), py::arg("y_ptr"), py::arg("batch"), py::arg("length"), py::arg("n_levels"),
      py::arg("octaves"), py::arg("taps"), py::arg("plan_key"), py::arg("n_bins"),
      py::arg("frames"), py::arg("n_iter"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      R"(The least-squares inverse of a constant-Q transform on device memory, behind the work of `stream`. Waits until
it is done.

c_ptr, y_ptr: addresses on `device` of (batch, n_bins, frames) complex numbers and of (batch, length) reals, row-major;
y holds where to start and receives the result. n_levels, octaves, taps, plan_key, n_bins, frames: as in cqt_staged; the
arrays are host arrays. n_iter: as in icqt_cg_staged.
prec: 1 float, 2 double; 0, half storage, is refused. stream: raw handle, 0 the null stream.
From two steps on, one is recorded as a graph and replayed, on a stream of its own; where that fails, steps are queued
one by one. All numbers stay on the device. Pointers are not checked. Raises ValueError for sizes out of bounds and half
storage, RuntimeError when HIP fails.
Source: as icqt_cg_staged.)");
}

}  // namespace

void bind_icqt(py::module_& m) {
  bind_solver(m);
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
