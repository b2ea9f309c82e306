#include "cuda_like/ops/cepstra.h"

#include <cstdint>
#include <stdexcept>
#include <string>

#include "codegen/kernels/spectrum_output.h"
#include "cuda_like/ops/inverse_mel.h"
#include "rocm/bindings/arrays.h"
#include "rocm/bindings/banks.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/windows.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

// The matrix argument of the inverse mel scale. Lives as long as the call that it is the argument
// of.
struct MatrixArgument {
  MatrixArgument(const py::object& object, const std::string& key) : array(object), matrix{} {
    if (array.ndim() != 2) {
      throw std::invalid_argument("inverse_mel_scale: P has " + std::to_string(array.ndim()) +
                                  " dimensions, must be a 2-D (n_out, n_in) array");
    }
    matrix = {array.data(), array.shape(0), array.shape(1), key};
  }

  py::array_t<double, py::array::c_style | py::array::forcecast> array;
  ops::InverseMelMatrix matrix;
};

template <class T>
py::object inverse_mel_scale_staged(const py::object& m, const ops::InverseMelMatrix& matrix,
                                    bool clamp) {
  const ContiguousArray<T> input(m);
  return to_numpy(ops::inverse_mel_scale_staged<T>(input.view(), matrix, clamp));
}

void bind_inverse_mel(py::module_& m) {
  m.def(
      "inverse_mel_scale_staged",
      [](const py::object& bands, const py::object& matrix, const std::string& key, bool clamp) {
        const bool wide = is_double_input(bands);
        const MatrixArgument argument(matrix, key);
        return wide ? inverse_mel_scale_staged<double>(bands, argument.matrix, clamp)
                    : inverse_mel_scale_staged<float>(bands, argument.matrix, clamp);
      },
      py::arg("M"), py::arg("P"), py::arg("key"), py::arg("clamp"),
      R"(Bins of spectra from mel bands: row f of the result is P times row f of M.

M: array (rows, n_in), a frame's bands to a row; float64 is computed in double, all else in float.
P: array (n_out, n_in), as a rule the pseudo-inverse of a filter bank; read as float64.
key: the name of P. It is uploaded at the first call with a key, a shape and a precision and stays for the life of
the process; later calls with them take that one, whatever P then holds. Another matrix needs another key.
clamp: values below 0 become 0.
Returns (rows, n_out), in the unit of M times that of P.
Raises ValueError for bad shapes, TypeError for float16, RuntimeError when HIP fails.
Source: R. Penrose, A generalized inverse for matrices, Proc. Cambridge Phil. Soc. 51, 1955.)");
  m.def(
      "inverse_mel_scale_resident",
      [](uintptr_t bands, uintptr_t out, int64_t frames, const py::object& matrix,
         const std::string& key, bool clamp, int prec, int device, uintptr_t stream) {
        const MatrixArgument argument(matrix, key);
        ops::inverse_mel_scale_resident({.m = reinterpret_cast<devptr_t>(bands),
                                         .out = reinterpret_cast<devptr_t>(out),
                                         .rows = frames,
                                         .matrix = argument.matrix,
                                         .clamp = clamp,
                                         .device = device,
                                         .stream = reinterpret_cast<stream_t>(stream)},
                                        prec);
      },
      py::arg("m_ptr"), py::arg("out_ptr"), py::arg("frames"), py::arg("P"), py::arg("key"),
      py::arg("clamp"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      R"(Bins of spectra from mel bands on device memory; queues the work on `stream` and returns.

m_ptr, out_ptr: addresses on `device` of (frames, n_in) bands and (frames, n_out) bins, row-major.
P: a host array (n_out, n_in), as in inverse_mel_scale_staged; keep it float64 and C-contiguous, or every call converts
it. key, clamp: as there.
prec: 2 double, else float. stream: raw handle, 0 the null stream.
Pointers are not checked. The first call for a matrix waits for the device. Nothing is queued for no frames. Raises
ValueError for sizes out of bounds, RuntimeError when HIP fails.
Source: as inverse_mel_scale_staged.)");
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
  bind_inverse_mel(m);
}

}  // namespace kevra::bindings
