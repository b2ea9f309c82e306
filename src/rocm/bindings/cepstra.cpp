#include <cstdint>
#include <string>

#include "codegen/kernels/spectrum_output.h"
#include "cuda_like/ops/cepstra_adjoint.h"
#include "rocm/bindings/arrays.h"
#include "rocm/bindings/banks.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/windows.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

void bind_cepstra_adjoint(py::module_& m) {
  m.def(
      "cepstra_adjoint_resident",
      [](uintptr_t gc_ptr, uintptr_t x_ptr, uintptr_t gx_ptr, int64_t batch, int64_t length,
         const py::object& fb, int64_t n_fft, int64_t hop, bool center, int64_t n_out,
         double lifter, double top_db, double eps, const py::object& window, int prec, int device,
         uintptr_t stream) {
        const WindowArgument shape(window);
        const BankArgument argument(fb);
        ops::cepstra_adjoint_resident({.gc = reinterpret_cast<devptr_t>(gc_ptr),
                                       .x = reinterpret_cast<devptr_t>(x_ptr),
                                       .gx = reinterpret_cast<devptr_t>(gx_ptr),
                                       .batch = batch,
                                       .length = length,
                                       .bands = {argument.bank, n_fft, hop, center, 2,
                                                 codegen::kDecibelForm, eps, shape.spec},
                                       .cepstra = {n_out, lifter, top_db},
                                       .device = device,
                                       .stream = reinterpret_cast<stream_t>(stream)},
                                      prec);
      },
      py::arg("gc_ptr"), py::arg("x_ptr"), py::arg("gx_ptr"), py::arg("batch"), py::arg("length"),
      py::arg("fb"), py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("n_out"),
      py::arg("lifter"), py::arg("top_db"), py::arg("eps"), py::arg("window"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Gradient of a function E of the cepstra of a signal x with respect to x; queues the work on `stream` and returns.
The bands are computed anew from x: nothing is kept from the forward pass.

gc_ptr: address on `device` of dE/dc, laid out (batch, n_out, frames) with the frames adjacent in memory. The forward
pass writes (batch, frames, n_out): what has the shape of its result has to be transposed first.
x_ptr: address of the signal, (batch, length), row-major. gx_ptr: address of as many reals, which are overwritten.
fb: a host array, as in mel_resident. n_fft, hop, center, n_out, lifter, top_db, eps, window: as in the forward pass.
A band that top_db raised follows the loudest band of its row of x, the first of equals. A band without power has the
gradient 0 whatever eps is.
prec: 1 float, 2 double; half storage is refused. stream: raw handle, 0 the null stream.
Frames are added by atomics, in any order; after set_deterministic(1) in theirs, which takes more memory.
Pointers are not checked. Nothing is queued for no rows. Raises ValueError for sizes out of bounds and for half,
RuntimeError when HIP fails.
Source: the transposed cosine transform, then the chain rule of mel_adjoint_resident.)");
}

}  // namespace

void bind_cepstra(py::module_& m) {
  m.def(
      "cepstra_staged",
      [](const py::object& y, const py::object& window, const py::object& fb, int64_t n_fft,
         int64_t hop, bool center, int64_t n_out, double lifter, double top_db, double eps) {
        is_double_input(y);  // refuses float16; all else is computed in double
        const ContiguousArray<double> input(y);
        const WindowArgument shape(window);
        const BankArgument argument(fb);
        return frames_last(ops::cepstra_staged(
            input.view(),
            {argument.bank, n_fft, hop, center, 2, codegen::kDecibelForm, eps, shape.spec},
            {n_out, lifter, top_db}));
      },
      py::arg("y"), py::arg("window"), py::arg("fb"), py::arg("n_fft"), py::arg("hop"),
      py::arg("center"), py::arg("n_out"), py::arg("lifter"), py::arg("top_db"),
      py::arg("eps") = 1e-10,
      R"(Cepstra of frames; with a mel bank, the mel-frequency cepstral coefficients (MFCC). Coefficient k is w[k] times
coefficient k of the orthonormal DCT-II over a frame's bands in decibels, 10 log10(band + eps), as mel_staged computes
them from powers.

y: array (batch, samples) of any real type but float16; always computed in double.
window, fb, n_fft, hop, center, eps: as in mel_staged.
n_out: coefficients, from 1 up; beyond the number of bands the cosines go on.
lifter: w[k] = 1 + lifter / 2 sin(pi (k + 1) / lifter); 0 and below weigh nothing.
top_db: bands further than this below the loudest band of their row of y are raised to that level; below 0 none is.
Returns float64 (batch, n_out, frames) with frames = (samples + 2 pad - n_fft) // hop + 1; a view whose coefficients
are adjacent in memory. Empty for no rows.
Raises ValueError for bad shapes, sizes, banks, windows, lifters, top_db and eps, TypeError for float16, RuntimeError
when HIP fails.
Source: S. B. Davis and P. Mermelstein, Comparison of parametric representations for monosyllabic word recognition in
continuously spoken sentences, IEEE Trans. ASSP 28, 1980; B.-H. Juang, L. R. Rabiner and J. G. Wilpon, On the use of
bandpass liftering in speech recognition, IEEE Trans. ASSP 35, 1987.)");
  m.def(
      "cepstra_resident",
      [](uintptr_t y_ptr, uintptr_t out_ptr, int64_t batch, int64_t length, const py::object& fb,
         int64_t n_fft, int64_t hop, bool center, int64_t n_out, double lifter, double top_db,
         double eps, const py::object& window, int prec, int device, uintptr_t stream) {
        const WindowArgument shape(window);
        const BankArgument argument(fb);
        ops::cepstra_resident({.bands = {.y = reinterpret_cast<devptr_t>(y_ptr),
                                         .mel = reinterpret_cast<devptr_t>(out_ptr),
                                         .batch = batch,
                                         .length = length,
                                         .options = {argument.bank, n_fft, hop, center, 2,
                                                     codegen::kDecibelForm, eps, shape.spec},
                                         .device = device,
                                         .stream = reinterpret_cast<stream_t>(stream)},
                               .options = {n_out, lifter, top_db}},
                              prec);
      },
      py::arg("y_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"), py::arg("fb"),
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("n_out"), py::arg("lifter"),
      py::arg("top_db"), py::arg("eps"), py::arg("window"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      R"(Cepstra of frames on device memory; queues the work on `stream` and returns.

y_ptr, out_ptr: addresses on `device` of (batch, length) samples and (batch, frames, n_out) coefficients, row-major.
fb: a host array, as in mel_resident. n_fft, hop, center, n_out, lifter, top_db, eps, window: as in cepstra_staged.
prec: 2 double, else float. stream: raw handle, 0 the null stream.
Pointers are not checked. The first call for a bank or a lifter waits for the device. Nothing is queued for no rows.
Raises ValueError for sizes out of bounds, RuntimeError when HIP fails.
Source: as cepstra_staged.)");
  bind_cepstra_adjoint(m);
}

}  // namespace kevra::bindings
