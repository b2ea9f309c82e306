#include <complex>
#include <cstdint>
#include <string>
#include <utility>

#include "cuda_like/ops/stft.h"
#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/windows.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

template <class T>
py::array stft_staged(const py::object& y, const ops::StftOptions& options) {
  const ContiguousArray<T> input(y);
  if (options.form == 0) {
    return frames_last(ops::stft_staged<T, std::complex<T>>(input.view(), options));
  }
  return frames_last(ops::stft_staged<T, T>(input.view(), options));
}

}  // namespace

void bind_spectrograms(py::module_& m) {
  m.def(
      "stft_staged",
      [](const py::object& y, const py::object& window, int64_t n_fft, int64_t hop, bool center,
         const std::string& output, double eps) {
        const bool wide = is_double_input(y);
        const WindowArgument argument(window);
        const ops::StftOptions options{argument.spec, n_fft, hop, center, output_form(output), eps};
        return wide ? stft_staged<double>(y, options) : stft_staged<float>(y, options);
      },
      py::arg("y"), py::arg("window"), py::arg("n_fft"), py::arg("hop"), py::arg("center"),
      py::arg("output"), py::arg("eps") = 1e-10,
      R"(Short-time Fourier transform: X[k] of a frame is the sum of w[i] s[i] exp(-2 pi i k i / n_fft), unscaled.

y: array (batch, samples); float64 is computed in double, all else in float.
window: hann, hamming, blackman, blackmanharris, nuttall, bartlett, boxcar or rect (periodic), or n_fft samples.
n_fft, hop: in samples, from 2 and from 1 up. center: reflect the signal by n_fft // 2 at both ends, the edge
sample not repeated; it has to be longer than that.
output: "magnitude", "power" or "db" (10 log10(power + eps), with no reference level); anything else is complex.
Returns (batch, n_fft // 2 + 1, frames) with frames = (samples + 2 pad - n_fft) // hop + 1; a view whose bins are
adjacent in memory.
Raises ValueError for bad shapes, sizes, windows and eps, TypeError for float16, RuntimeError when HIP fails.
Source: J. B. Allen, Short term spectral analysis, synthesis, and modification by discrete Fourier transform,
IEEE Trans. ASSP 25, 1977.)");
  m.def(
      "stft_resident",
      [](uintptr_t x_ptr, uintptr_t out_ptr, int64_t batch, int64_t length, int64_t n_fft,
         int64_t hop, bool center, const std::string& output, double eps, const py::object& window,
         int prec, int device, uintptr_t stream) {
        const WindowArgument argument(window);
        ops::stft_resident({.y = reinterpret_cast<devptr_t>(x_ptr),
                            .out = reinterpret_cast<devptr_t>(out_ptr),
                            .batch = batch,
                            .length = length,
                            .n_fft = n_fft,
                            .hop = hop,
                            .center = center,
                            .form = output_form(output),
                            .eps = eps,
                            .window = argument.spec,
                            .device = device,
                            .stream = reinterpret_cast<stream_t>(stream)},
                           prec);
      },
      py::arg("x_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"), py::arg("n_fft"),
      py::arg("hop"), py::arg("center"), py::arg("output"), py::arg("eps"), py::arg("window"),
      py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      R"(Short-time Fourier transform on device memory; queues the work on `stream` and returns.

x_ptr, out_ptr: addresses on `device` of (batch, length) samples and (batch, frames, n_fft // 2 + 1) bins, row-major;
real numbers for the outputs magnitude, power and db, else complex. n_fft, hop, center, output, eps, window: as in
stft_staged.
prec: 0 half storage with float arithmetic, 1 float, 2 double, 3 half storage with half arithmetic where n_fft is a
power of two. stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for sizes out of bounds, RuntimeError when HIP fails.
Source: J. B. Allen, Short term spectral analysis, synthesis, and modification by discrete Fourier transform,
IEEE Trans. ASSP 25, 1977.)");
}

}  // namespace kevra::bindings
