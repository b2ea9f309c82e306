#include "cuda_like/ops/cqt.h"

#include <complex>
#include <cstdint>
#include <string>

#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/cqt_design.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

template <class T>
py::array cqt_staged(const py::object& y, const ops::CqtDesign& design, int form, double eps) {
  const ContiguousArray<T> input(y);
  if (form == 0) {
    return to_numpy(ops::cqt_staged<T, std::complex<T>>(input.view(), design, form, eps));
  }
  return to_numpy(ops::cqt_staged<T, T>(input.view(), design, form, eps));
}

}  // namespace

void bind_cqt(py::module_& m) {
  m.def(
      "cqt_staged",
      [](const py::object& y, int64_t n_levels, const py::list& octaves, const py::object& taps,
         const std::string& plan_key, int64_t n_bins, int64_t frames, const std::string& output,
         double eps) {
        const bool wide = is_double_input(y);
        const DesignArgument argument("cqt", n_levels, octaves, taps, plan_key, n_bins, frames);
        const int form = output_form(output);
        return wide ? cqt_staged<double>(y, argument.design, form, eps)
                    : cqt_staged<float>(y, argument.design, form, eps);
      },
      py::arg("y"), py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("plan_key"),
      py::arg("n_bins"), py::arg("frames"), py::arg("output"), py::arg("eps") = 1e-10,
      R"(Constant-Q transform by a design of the caller's. Level 0 is the signal; level l + 1 is level l through a
half-band filter, every second sample kept. On a level, octaves are evaluated: bin k of frame t is the sum of
(br[k, i] + 1j * bi[k, i]) * X[i] over the n_fft // 2 + 1 bins i, X being the unscaled real Fourier transform of the
n_fft samples from t * hop - n_fft // 2 on, zeros outside the signal.

y: array (batch, samples); float64 is computed in double, all else in float.
n_levels: from 1 to 32. A level has half the samples of the one before, rounded up.
octaves: list of tuples (level, hop, n_fft, row_lo, br, bi). hop and n_fft are in samples of the level; br and bi, real
arrays (rows, n_fft // 2 + 1), give rows row_lo to row_lo + rows - 1 of the result. Columns from a row's first to its
last non-zero entry are computed with, so that narrow filters cost little. Together the octaves give every row once.
taps: 65 reals, the half-band filter: x'[j] is the sum of taps[t] x[2 j + t - 32] over t = 32 and the odd t.
plan_key: stands for octaves and taps, which are uploaded once for a key; every design needs a key of its own. Keep the
arrays as they are: a call that finds its tables reads none of them.
n_bins, frames: of the result. frames is at most what the octave with the fewest has,
(samples of its level + 2 * (n_fft // 2) - n_fft) // hop + 1.
output: "magnitude", "power" or "db" (10 log10(power + eps), with no reference level); anything else is complex.
Returns (batch, n_bins, frames).
Raises ValueError for bad shapes, sizes, designs and eps, naming the record; TypeError for float16, RuntimeError when
HIP fails.
Source: J. C. Brown and M. S. Puckette, An efficient algorithm for the calculation of a constant Q transform, J. Acoust.
Soc. Am. 92, 1992; C. Schoerkhuber and A. Klapuri, Constant-Q transform toolbox for music processing, SMC 2010.)");
  m.def(
      "cqt_resident",
      [](uintptr_t x_ptr, uintptr_t out_ptr, int64_t batch, int64_t length, int64_t n_levels,
         const py::list& octaves, const py::object& taps, const std::string& plan_key,
         int64_t n_bins, int64_t frames, const std::string& output, double eps, int prec,
         int device, uintptr_t stream) {
        const DesignArgument argument("cqt", n_levels, octaves, taps, plan_key, n_bins, frames);
        ops::cqt_resident({.x = reinterpret_cast<devptr_t>(x_ptr),
                           .out = reinterpret_cast<devptr_t>(out_ptr),
                           .batch = batch,
                           .length = length,
                           .design = argument.design,
                           .form = output_form(output),
                           .eps = eps,
                           .device = device,
                           .stream = reinterpret_cast<stream_t>(stream)},
                          prec);
      },
      py::arg("x_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"),
      py::arg("n_levels"), py::arg("octaves"), py::arg("taps"), py::arg("plan_key"),
      py::arg("n_bins"), py::arg("frames"), py::arg("output"), py::arg("eps"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Constant-Q transform on device memory; queues the work on `stream` and returns.

x_ptr, out_ptr: addresses on `device` of (batch, length) samples and (batch, n_bins, frames) values, row-major; real
numbers for the outputs magnitude, power and db, else complex.
n_levels, octaves, taps, plan_key, n_bins, frames, output, eps: as in cqt_staged; the arrays are host arrays.
prec: 0 half storage with float arithmetic, 1 float, 2 double. stream: raw handle, 0 the null stream.
Pointers are not checked. The first call for a plan_key uploads its tables and waits for that. Nothing is queued for no
rows or no frames. Raises ValueError for sizes out of bounds, RuntimeError when HIP fails.
Source: as cqt_staged.)");
}

}  // namespace kevra::bindings
