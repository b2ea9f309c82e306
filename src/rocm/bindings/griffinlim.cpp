#include "cuda_like/ops/griffinlim.h"

#include <complex>
#include <cstdint>

#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/windows.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

template <class T>
py::array griffinlim_staged(const py::object& s, const py::object& angles,
                            const ops::GriffinLimOptions& options) {
  const ContiguousArray<T> magnitudes(s);
  const ContiguousArray<std::complex<T>> phases(angles);
  return to_numpy(ops::griffinlim_staged<T>(magnitudes.view(), phases.view(), options));
}

}  // namespace

void bind_griffinlim(py::module_& m) {
  m.def(
      "griffinlim_staged",
      [](const py::array& s, const py::array& ang, const py::object& window, int64_t n_fft,
         int64_t hop, bool center, int64_t n_iter, double momentum, int64_t length) {
        const bool wide = s.dtype().equal(py::dtype::of<double>());
        const WindowArgument argument(window);
        const ops::GriffinLimOptions options{argument.spec, n_fft,    hop,   center,
                                             n_iter,        momentum, length};
        return wide ? griffinlim_staged<double>(s, ang, options)
                    : griffinlim_staged<float>(s, ang, options);
      },
      py::arg("S"), py::arg("ang"), py::arg("window"), py::arg("n_fft"), py::arg("hop"),
      py::arg("center"), py::arg("n_iter"), py::arg("momentum"), py::arg("length"),
      R"(Signals whose spectra have given magnitudes, by the Griffin-Lim iteration: from the spectrum S ang to the
signal nearest to it, to that signal's spectrum Z, and on with the phases u / (|u| + 1e-16) of u = Z - alpha Z',
where Z' is the Z of the round before, 0 in the first, and alpha = momentum / (1 + momentum).

S: magnitudes (batch, frames, bins) with bins = n_fft // 2 + 1; float64 is computed in double, all else as float32.
ang: the phases to start from, complex numbers of size 1 in the shape of S; random ones serve. Left as they are.
window, n_fft, hop, center: as in istft_staged, the same in both directions.
n_iter: rounds; below 1 the result is the inverse of S ang. momentum: 0 is the plain iteration; 0.99 needs fewer
rounds. Any finite number but -1.
length: samples wanted, at most (frames - 1) * hop + n_fft less the padding in front; below 1 as many as istft_staged
gives without a length.
Returns (batch, samples), in the unit of the signal that S is of.
Raises ValueError for bad shapes, sizes, windows and momenta, where no window reaches some sample between frames and
for frame counts whose signal is too short for the way forth, RuntimeError when HIP fails.
Source: D. W. Griffin and J. S. Lim, Signal estimation from modified short-time Fourier transform, IEEE Trans. ASSP
32, 1984; N. Perraudin, P. Balazs and P. L. Soendergaard, A fast Griffin-Lim algorithm, WASPAA 2013.)");
  m.def(
      "griffinlim_resident",
      [](uintptr_t s_ptr, uintptr_t ang_ptr, uintptr_t y_ptr, int64_t batch, int64_t frames,
         int64_t bins, int64_t n_fft, int64_t hop, bool center, int64_t n_iter, double momentum,
         int64_t length, const py::object& window, int prec, int device, uintptr_t stream) {
        const WindowArgument argument(window);
        ops::griffinlim_resident(
            {.s = reinterpret_cast<devptr_t>(s_ptr),
             .angles = reinterpret_cast<devptr_t>(ang_ptr),
             .y = reinterpret_cast<devptr_t>(y_ptr),
             .batch = batch,
             .frames = frames,
             .bins = bins,
             .options = {argument.spec, n_fft, hop, center, n_iter, momentum, length},
             .device = device,
             .stream = reinterpret_cast<stream_t>(stream)},
            prec);
      },
      py::arg("s_ptr"), py::arg("ang_ptr"), py::arg("y_ptr"), py::arg("batch"), py::arg("frames"),
      py::arg("bins"), py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("n_iter"),
      py::arg("momentum"), py::arg("length"), py::arg("window"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(griffinlim_staged on device memory; queues all rounds on `stream` and returns.

s_ptr, ang_ptr: addresses on `device` of (batch, frames, bins) magnitudes and complex phases, row-major; the last
phases of the iteration overwrite those given. y_ptr: address of (batch, samples), row-major.
n_fft, hop, center, n_iter, momentum, length, window: as in griffinlim_staged.
prec: 1 float, 2 double; half planes are refused. stream: raw handle, 0 the null stream.
Takes memory for three complex planes and the signals while it queues. Frames are added by atomics, in any order;
after set_deterministic(1) in theirs. Nothing is queued for no rows. Pointers are not checked.
Raises ValueError for sizes and momenta out of bounds, RuntimeError when HIP fails.
Source: as griffinlim_staged.)");
}

}  // namespace kevra::bindings
