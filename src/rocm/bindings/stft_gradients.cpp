#include <cstdint>
#include <string>

#include "cuda_like/hints.h"
#include "cuda_like/ops/istft_adjoint.h"
#include "cuda_like/ops/stft_adjoint.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/windows.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

void bind_stft_adjoint(py::module_& m) {
  m.def(
      "stft_adjoint_resident",
      [](uintptr_t g_ptr, uintptr_t gx_ptr, int64_t batch, int64_t bins, int64_t frames,
         int64_t stride_batch, int64_t stride_bin, int64_t stride_frame, int64_t n_fft, int64_t hop,
         bool center, int64_t length, const py::object& window, int prec, int device,
         uintptr_t stream) {
        const WindowArgument argument(window);
        ops::stft_adjoint_resident({.g = reinterpret_cast<devptr_t>(g_ptr),
                                    .x = nullptr,
                                    .gx = reinterpret_cast<devptr_t>(gx_ptr),
                                    .batch = batch,
                                    .length = length,
                                    .frames = frames,
                                    .stride_batch = stride_batch,
                                    .stride_bin = stride_bin,
                                    .stride_frame = stride_frame,
                                    .n_fft = n_fft,
                                    .hop = hop,
                                    .center = center,
                                    .form = 0,
                                    .eps = 0,
                                    .window = argument.spec,
                                    .device = device,
                                    .stream = reinterpret_cast<stream_t>(stream)},
                                   bins, prec);
      },
      py::arg("g_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("bins"), py::arg("frames"),
      py::arg("stride_batch"), py::arg("stride_bin"), py::arg("stride_frame"), py::arg("n_fft"),
      py::arg("hop"), py::arg("center"), py::arg("length"), py::arg("window"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Gradient of a function E of a complex spectrogram X = stft(x) with respect to the signal x; queues the work on
`stream` and returns.

g_ptr: address on `device` of bin 0 of frame 0 of batch row 0 of the gradient G = dE/dRe X + i dE/dIm X, complex; the
strides, in complex values, lead to the next row, bin and frame, so any layout serves. gx_ptr: address of (batch, length)
reals, row-major, which are overwritten.
bins: n_fft // 2 + 1. frames: as many as `length` samples have. Each stored bin counts once: none stands for its mirror.
n_fft, hop, center, window: as in stft_staged.
prec: 1 float, 2 double; half storage is refused. stream: raw handle, 0 the null stream.
Frames are added by atomics, in any order; after set_deterministic(1) in theirs, which takes more memory.
Pointers are not checked. Raises ValueError for sizes out of bounds and for half, RuntimeError when HIP fails.
Source: the transpose of the transform in J. B. Allen, Short term spectral analysis, synthesis, and modification by
discrete Fourier transform, IEEE Trans. ASSP 25, 1977.)");
}

void bind_stft_adjoint_mode(py::module_& m) {
  m.def(
      "stft_adjoint_mode_resident",
      [](uintptr_t g_ptr, uintptr_t x_ptr, uintptr_t gx_ptr, int64_t batch, int64_t bins,
         int64_t frames, int64_t stride_batch, int64_t stride_bin, int64_t stride_frame,
         int64_t n_fft, int64_t hop, bool center, int64_t length, const std::string& output,
         double eps, const py::object& window, int prec, int device, uintptr_t stream) {
        const WindowArgument argument(window);
        ops::stft_adjoint_mode_resident({.g = reinterpret_cast<devptr_t>(g_ptr),
                                         .x = reinterpret_cast<devptr_t>(x_ptr),
                                         .gx = reinterpret_cast<devptr_t>(gx_ptr),
                                         .batch = batch,
                                         .length = length,
                                         .frames = frames,
                                         .stride_batch = stride_batch,
                                         .stride_bin = stride_bin,
                                         .stride_frame = stride_frame,
                                         .n_fft = n_fft,
                                         .hop = hop,
                                         .center = center,
                                         .form = output_form(output),
                                         .eps = eps,
                                         .window = argument.spec,
                                         .device = device,
                                         .stream = reinterpret_cast<stream_t>(stream)},
                                        bins, prec);
      },
      py::arg("g_ptr"), py::arg("x_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("bins"),
      py::arg("frames"), py::arg("stride_batch"), py::arg("stride_bin"), py::arg("stride_frame"),
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("length"), py::arg("output"),
      py::arg("eps"), py::arg("window"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      R"(Gradient of a function E of a magnitude, power or decibel spectrogram S of a signal x with respect to x; queues
the work on `stream` and returns. The spectra are computed anew from x: nothing is kept from the forward pass.

g_ptr: address on `device` of the gradient dE/dS, real, read through the strides in elements: to the next batch row, bin
and frame. x_ptr: address of the signal, (batch, length), row-major. gx_ptr: address of as many reals, overwritten.
output: "magnitude", "power" or "db", eps as in the forward pass; the gradient of a complex spectrogram goes to
stft_adjoint_resident. A bin whose magnitude is at most 1e-12 has the gradient 0 under "magnitude".
bins, frames, n_fft, hop, center, window, prec, stream: as in stft_adjoint_resident.
Pointers are not checked. Raises ValueError for sizes out of bounds, another output and half, RuntimeError when HIP
fails.
Source: the chain rule through |X|, |X|^2 and 10 log10(|X|^2 + eps), then stft_adjoint_resident.)");
}

void bind_istft_adjoint(py::module_& m) {
  m.def(
      "istft_adjoint_resident",
      [](uintptr_t gy_ptr, uintptr_t gz_ptr, int64_t batch, int64_t length, int64_t n_fft,
         int64_t hop, bool center, int64_t frames, const py::object& window, int prec, int device,
         uintptr_t stream) {
        const WindowArgument argument(window);
        ops::istft_adjoint_resident({.gy = reinterpret_cast<devptr_t>(gy_ptr),
                                     .gz = reinterpret_cast<devptr_t>(gz_ptr),
                                     .batch = batch,
                                     .length = length,
                                     .n_fft = n_fft,
                                     .hop = hop,
                                     .center = center,
                                     .frames = frames,
                                     .window = argument.spec,
                                     .device = device,
                                     .stream = reinterpret_cast<stream_t>(stream)},
                                    prec);
      },
      py::arg("gy_ptr"), py::arg("gz_ptr"), py::arg("batch"), py::arg("length"), py::arg("n_fft"),
      py::arg("hop"), py::arg("center"), py::arg("frames"), py::arg("window"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Gradient of a function E of signals y = istft(Z) with respect to the spectrogram Z; queues the work on `stream`
and returns.

gy_ptr: address on `device` of dE/dy, (batch, length) reals, row-major; samples that the forward pass does not make
have no gradient to hand on. gz_ptr: address of (batch, frames, n_fft // 2 + 1) complex values, row-major, which are
overwritten with dE/dRe Z + i dE/dIm Z. The imaginary parts of bin 0 and, for even n_fft, of the last bin are 0, as the
forward pass ignores them; every other bin counts for its mirror as well.
Samples whose squared windows sum to at most 1e-8 pass no gradient.
n_fft, hop, center, window: as in istft_staged. prec: 1 float, 2 double; half storage is refused.
stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for sizes out of bounds and for half, RuntimeError when HIP fails.
Source: the transpose of the synthesis in D. W. Griffin and J. S. Lim, Signal estimation from modified short-time
Fourier transform, IEEE Trans. ASSP 32, 1984.)");
}

}  // namespace

void bind_stft_gradients(py::module_& m) {
  bind_stft_adjoint(m);
  bind_stft_adjoint_mode(m);
  bind_istft_adjoint(m);
}

}  // namespace kevra::bindings
