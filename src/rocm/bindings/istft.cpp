#include "cuda_like/ops/istft.h"

#include <complex>
#include <cstdint>

#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/windows.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

template <class T>
py::array istft_staged(const py::object& z, const ops::IstftOptions& options) {
  const ContiguousArray<std::complex<T>> input(z);
  return to_numpy(ops::istft_staged<T>(input.view(), options));
}

}  // namespace

void bind_istft(py::module_& m) {
  m.def(
      "istft_staged",
      [](const py::object& z, const py::object& window, int64_t n_fft, int64_t hop, bool center,
         int64_t length) {
        const bool wide = is_double_input(z);
        const WindowArgument argument(window);
        const ops::IstftOptions options{argument.spec, n_fft, hop, center, length};
        return wide ? istft_staged<double>(z, options) : istft_staged<float>(z, options);
      },
      py::arg("Z"), py::arg("window"), py::arg("n_fft"), py::arg("hop"), py::arg("center"),
      py::arg("length") = -1,
      R"(Signals from spectrograms: the windowed inverse transforms of the frames are overlap-added and divided by
the sum of the squared windows. Samples whose sum is at most 1e-8 are 0.

Z: array (batch, frames, bins) with bins = n_fft // 2 + 1; complex128 is computed in double, all else in float.
The imaginary parts of bin 0 and, for even n_fft, of the last bin are ignored.
window: hann, hamming, blackman, blackmanharris, nuttall, bartlett, boxcar or rect (periodic), or n_fft samples.
hop: in samples, from 1 to n_fft. center: cut off the n_fft // 2 samples of padding at both ends.
length: samples wanted, at most (frames - 1) * hop + n_fft less the padding in front; below 1 as many as there are.
Returns (batch, samples).
Raises ValueError for bad shapes, sizes and windows and where no window reaches some sample between frames,
TypeError for float16, RuntimeError when HIP fails.
Source: D. W. Griffin and J. S. Lim, Signal estimation from modified short-time Fourier transform,
IEEE Trans. ASSP 32, 1984.)");
  m.def(
      "istft_resident",
      [](uintptr_t z_ptr, uintptr_t y_ptr, int64_t batch, int64_t bins, int64_t frames,
         int64_t stride_batch, int64_t stride_bin, int64_t stride_frame, int64_t n_fft, int64_t hop,
         bool center, int64_t length, const py::object& window, int prec, int device,
         uintptr_t stream) {
        const WindowArgument argument(window);
        ops::istft_resident({.z = reinterpret_cast<devptr_t>(z_ptr),
                             .y = reinterpret_cast<devptr_t>(y_ptr),
                             .batch = batch,
                             .bins = bins,
                             .frames = frames,
                             .stride_batch = stride_batch,
                             .stride_bin = stride_bin,
                             .stride_frame = stride_frame,
                             .n_fft = n_fft,
                             .hop = hop,
                             .center = center,
                             .length = length,
                             .window = argument.spec,
                             .device = device,
                             .stream = reinterpret_cast<stream_t>(stream)},
                            prec);
      },
      py::arg("z_ptr"), py::arg("y_ptr"), py::arg("batch"), py::arg("bins"), py::arg("frames"),
      py::arg("stride_batch"), py::arg("stride_bin"), py::arg("stride_frame"), py::arg("n_fft"),
      py::arg("hop"), py::arg("center"), py::arg("length"), py::arg("window"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(istft_staged on device memory; queues the work on `stream` and returns.

z_ptr: address on `device` of bin 0 of frame 0 of batch row 0; the strides, in complex values, lead to the next row,
bin and frame, so any layout serves. y_ptr: address of (batch, samples), row-major, in which nothing else may change.
n_fft, hop, center, length, window: as in istft_staged.
prec: 0 and 3 half storage with float arithmetic, 1 float, 2 double. stream: raw handle, 0 the null stream.
Frames are added by atomics, in any order; after set_deterministic(1) in theirs, which takes more memory.
Pointers are not checked. Raises ValueError for sizes out of bounds, RuntimeError when HIP fails.
Source: D. W. Griffin and J. S. Lim, Signal estimation from modified short-time Fourier transform,
IEEE Trans. ASSP 32, 1984.)");
}

}  // namespace kevra::bindings
