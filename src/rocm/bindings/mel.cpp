#include <cstdint>
#include <string>

#include "cuda_like/ops/mel_adjoint.h"
#include "rocm/bindings/arrays.h"
#include "rocm/bindings/banks.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/windows.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

template <class T>
py::array mel_staged(const py::object& y, const ops::MelOptions& options) {
  const ContiguousArray<T> input(y);
  return frames_last(ops::mel_staged<T>(input.view(), options));
}

void bind_mel_adjoint(py::module_& m) {
  m.def(
      "mel_adjoint_resident",
      [](uintptr_t g_ptr, uintptr_t x_ptr, uintptr_t gx_ptr, int64_t batch, int64_t n_mels,
         int64_t frames, int64_t stride_batch, int64_t stride_bin, int64_t stride_frame,
         const py::object& fb, int64_t n_fft, int64_t hop, bool center, int64_t length,
         double power, const std::string& output, double eps, const py::object& window, int prec,
         int device, uintptr_t stream) {
        const WindowArgument shape(window);
        const BankArgument argument(fb,
                                    "mel_adjoint: filterbank shape must be (n_mels, n_fft/2+1)");
        ops::mel_adjoint_resident({.g = reinterpret_cast<devptr_t>(g_ptr),
                                   .x = reinterpret_cast<devptr_t>(x_ptr),
                                   .gx = reinterpret_cast<devptr_t>(gx_ptr),
                                   .batch = batch,
                                   .length = length,
                                   .frames = frames,
                                   .stride_batch = stride_batch,
                                   .stride_bin = stride_bin,
                                   .stride_frame = stride_frame,
                                   .options = {argument.bank, n_fft, hop, center, power,
                                               output_form(output), eps, shape.spec},
                                   .device = device,
                                   .stream = reinterpret_cast<stream_t>(stream)},
                                  n_mels, prec);
      },
      py::arg("g_ptr"), py::arg("x_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("n_mels"),
      py::arg("frames"), py::arg("stride_batch"), py::arg("stride_bin"), py::arg("stride_frame"),
      py::arg("fb"), py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("length"),
      py::arg("power"), py::arg("output"), py::arg("eps"), py::arg("window"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Gradient of a function E of the mel spectrogram S of a signal x with respect to x; queues the work on `stream` and
returns. The spectra are computed anew from x: nothing is kept from the forward pass.

g_ptr: address on `device` of the gradient dE/dS, real, read through the strides in elements: to the next batch row,
band and frame, so any layout serves; that of mel_resident's result has strides (frames * n_mels, 1, n_mels). x_ptr:
address of the signal, (batch, length), row-major. gx_ptr: address of as many reals, which are overwritten.
fb: a host array (n_mels, n_fft // 2 + 1), as in mel_resident; a bin may belong to any number of bands.
frames: as many as `length` samples have. power: rounded to a whole number, 1 or 2.
n_fft, hop, center, output, eps, window: as in the forward pass. A band of 0 has the gradient 0 under "magnitude", and
under "db" without eps; so has a bin whose magnitude is at most 1e-12 under a power of 1.
prec: 1 float, 2 double; half storage is refused. stream: raw handle, 0 the null stream.
Frames are added by atomics, in any order; after set_deterministic(1) in theirs, which takes more memory.
Pointers are not checked. The first call for a bank waits for the device. Nothing is queued for no rows. Raises
ValueError for sizes out of bounds and for half, RuntimeError when HIP fails.
Source: the chain rule through the form of output, the transposed bank and |X|**power, then stft_adjoint_resident.)");
}

}  // namespace

void bind_mel(py::module_& m) {
  m.def(
      "mel_staged",
      [](const py::object& y, const py::object& window, const py::object& fb, int64_t n_fft,
         int64_t hop, bool center, double power, const std::string& output, double eps) {
        const bool wide = is_double_input(y);
        const WindowArgument shape(window);
        const BankArgument argument(fb);
        const ops::MelOptions options{argument.bank,       n_fft, hop,       center, power,
                                      output_form(output), eps,   shape.spec};
        return wide ? mel_staged<double>(y, options) : mel_staged<float>(y, options);
      },
      py::arg("y"), py::arg("window"), py::arg("fb"), py::arg("n_fft"), py::arg("hop"),
      py::arg("center"), py::arg("power"), py::arg("output"), py::arg("eps") = 1e-10,
      R"(Bands of short-time spectra: band m of a frame is the sum of fb[m, k] |X[k]|**power over the bins k, X being
the transform that stft_staged computes.

y: array (batch, samples); float64 is computed in double, all else in float.
window, n_fft, hop, center: as in stft_staged.
fb: array (n_mels, n_fft // 2 + 1) of any real weights, as mel_filter_bank makes it; read as float64. A bank is packed
and uploaded once and known by a hash from then on. The hash reads the first 512 values and, of a larger bank, every
s-th value with s = size // 512: banks that differ only between those count as one, the first of them.
power: 1 for magnitudes, 2 for powers.
output: "magnitude" is the square root of a band, "db" 10 log10(band + eps), with no reference level; anything else
is the band itself.
Returns (batch, n_mels, frames) with frames = (samples + 2 pad - n_fft) // hop + 1; a view whose bands are adjacent
in memory.
Raises ValueError for bad shapes, sizes, banks, windows, power and eps, TypeError for float16, RuntimeError when HIP
fails.
Source: S. S. Stevens, J. Volkmann and E. B. Newman, A scale for the measurement of the psychological magnitude
pitch, J. Acoust. Soc. Am. 8, 1937; S. B. Davis and P. Mermelstein, Comparison of parametric representations for
monosyllabic word recognition in continuously spoken sentences, IEEE Trans. ASSP 28, 1980.)");
  m.def(
      "mel_resident",
      [](uintptr_t x_ptr, uintptr_t mel_ptr, int64_t batch, int64_t length, const py::object& fb,
         int64_t n_fft, int64_t hop, bool center, double power, const std::string& output,
         double eps, const py::object& window, int prec, int device, uintptr_t stream) {
        const WindowArgument shape(window);
        const BankArgument argument(fb);
        ops::mel_resident({.y = reinterpret_cast<devptr_t>(x_ptr),
                           .mel = reinterpret_cast<devptr_t>(mel_ptr),
                           .batch = batch,
                           .length = length,
                           .options = {argument.bank, n_fft, hop, center, power,
                                       output_form(output), eps, shape.spec},
                           .device = device,
                           .stream = reinterpret_cast<stream_t>(stream)},
                          prec);
      },
      py::arg("x_ptr"), py::arg("mel_ptr"), py::arg("batch"), py::arg("length"), py::arg("fb"),
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("power"), py::arg("output"),
      py::arg("eps"), py::arg("window"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      R"(Bands of short-time spectra on device memory; queues the work on `stream` and returns.

x_ptr, mel_ptr: addresses on `device` of (batch, length) samples and (batch, frames, n_mels) real values, row-major.
fb: a host array, as in mel_staged; keep it float64 and C-contiguous, or every call converts it. The hash that knows
it again is sampled, as told there. n_fft, hop, center, power, output, eps, window: as in mel_staged.
prec: 0 half storage with float arithmetic, 1 float, 2 double, 3 half storage with half transforms where n_fft is a
power of two. stream: raw handle, 0 the null stream.
Pointers are not checked. The first call for a bank waits for the device. Raises ValueError for sizes out of bounds,
RuntimeError when HIP fails.
Source: as mel_staged.)");
  bind_mel_adjoint(m);
}

}  // namespace kevra::bindings
