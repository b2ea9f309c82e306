#include "cuda_like/ops/chroma.h"

#include <cstdint>
#include <string>

#include "cuda_like/ops/tonnetz.h"
#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/cqt_design.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

template <class T>
py::array chroma_staged(const py::object& y, const ops::CqtDesign& design,
                        const ops::ChromaClasses& classes) {
  const ContiguousArray<T> input(y);
  return to_numpy(ops::chroma_staged(input.view(), design, classes));
}

template <class T>
py::array tonnetz_staged(const py::object& c) {
  const ContiguousArray<T> input(c);
  return frames_last(ops::tonnetz_staged(input.view()));
}

void bind_tonnetz(py::module_& m) {
  m.def(
      "tonnetz_resident",
      [](uintptr_t c, uintptr_t out, int64_t rows, int prec, int device, uintptr_t stream) {
        ops::tonnetz_resident(reinterpret_cast<devptr_t>(c), reinterpret_cast<devptr_t>(out), rows,
                              prec, device, reinterpret_cast<stream_t>(stream));
      },
      R"(tonnetz_resident(c_ptr, out_ptr, rows, prec, device, stream)

Tonal coordinates of chroma vectors on device memory; queues the work on `stream` and returns.

c_ptr, out_ptr: addresses on `device` of (rows, 12) chroma and (rows, 6) coordinates, row-major.
prec: 0 half storage with float arithmetic, 1 float, 2 double. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no rows. Raises ValueError for sizes out of bounds, RuntimeError when
HIP fails.
Source: C. Harte, M. Sandler and M. Gasser, Detecting harmonic change in musical audio, ACM AMCMM 2006.)");
  m.def(
      "tonnetz_staged",
      [](const py::object& c) {
        return is_double_input(c) ? tonnetz_staged<double>(c) : tonnetz_staged<float>(c);
      },
      R"(tonnetz_staged(C)

Tonal coordinates of chroma vectors: coordinate d of a frame is the sum of basis[d, p] C[p] over the sum of C[p]; 0
where that sum is not positive. The basis goes round the circle of fifths (d = 0, 1), of minor thirds (2, 3) and, at
half the radius, of major thirds (4, 5).

C: chroma (batch, 12, frames), class 0 first; float64 is computed in double, all else in float.
Returns (batch, 6, frames), without unit; a view whose coordinates are adjacent in memory.
Raises ValueError for bad shapes, TypeError for float16, RuntimeError when HIP fails.
Source: C. Harte, M. Sandler and M. Gasser, Detecting harmonic change in musical audio, ACM AMCMM 2006.)");
}

}  // namespace

void bind_chroma(py::module_& m) {
  m.def(
      "chroma_staged",
      [](const py::object& y, int64_t n_levels, const py::list& octaves, const py::object& taps,
         const py::object& classes, const std::string& plan_key, int64_t n_bins, int64_t n_chroma,
         int64_t frames) {
        const bool wide = is_double_input(y);
        const DesignArgument argument("chroma", n_levels, octaves, taps, plan_key, n_bins, frames);
        const ClassesArgument of_bins("chroma", classes);
        const ops::ChromaClasses fold{of_bins.classes, n_chroma};
        return wide ? chroma_staged<double>(y, argument.design, fold)
                    : chroma_staged<float>(y, argument.design, fold);
      },
      py::arg("y"), py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("classes"),
      py::arg("plan_key"), py::arg("n_bins"), py::arg("n_chroma"), py::arg("frames"),
      R"(Chroma: the magnitudes of a constant-Q transform added up by pitch class; each frame is divided by its largest
class, or by 1e-30 where that is larger, so that silence stays 0.

y: array (batch, samples); float64 is computed in double, all else in float.
n_levels, octaves, taps, plan_key, n_bins, frames: as in cqt_staged.
classes: whole numbers, the class of each bin, from 0 to n_chroma - 1; uploaded once for a plan_key.
n_chroma: classes of the result, from 1 to 1024.
Returns (batch, n_chroma, frames), from 0 to 1.
Raises ValueError for bad shapes, sizes, designs and classes, TypeError for float16, RuntimeError when HIP fails.
Source: T. Fujishima, Realtime chord recognition of musical sound: a system using Common Lisp Music, ICMC 1999.)");
  m.def(
      "chroma_resident",
      [](uintptr_t x_ptr, uintptr_t out_ptr, int64_t batch, int64_t length, int64_t n_levels,
         const py::list& octaves, const py::object& taps, const py::object& classes,
         const std::string& plan_key, int64_t n_bins, int64_t n_chroma, int64_t frames, int prec,
         int device, uintptr_t stream) {
        const DesignArgument argument("chroma", n_levels, octaves, taps, plan_key, n_bins, frames);
        const ClassesArgument of_bins("chroma", classes);
        ops::chroma_resident({.x = reinterpret_cast<devptr_t>(x_ptr),
                              .out = reinterpret_cast<devptr_t>(out_ptr),
                              .batch = batch,
                              .length = length,
                              .design = argument.design,
                              .device = device,
                              .stream = reinterpret_cast<stream_t>(stream)},
                             {of_bins.classes, n_chroma}, prec);
      },
      py::arg("x_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"),
      py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("classes"),
      py::arg("plan_key"), py::arg("n_bins"), py::arg("n_chroma"), py::arg("frames"),
      py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      R"(Chroma on device memory; queues the work on `stream` and returns.

x_ptr, out_ptr: addresses on `device` of (batch, length) samples and (batch, n_chroma, frames) values, row-major.
n_levels, octaves, taps, classes, plan_key, n_bins, n_chroma, frames: as in chroma_staged; the arrays are host arrays.
prec: 0 half storage with float arithmetic, 1 float, 2 double. stream: raw handle, 0 the null stream.
Pointers are not checked. The first call for a plan_key uploads its tables and waits for that. Nothing is queued for no
rows or no frames. Raises ValueError for sizes out of bounds, RuntimeError when HIP fails.
Source: as chroma_staged.)");
  bind_tonnetz(m);
}

}  // namespace kevra::bindings
