#include "cuda_like/ops/fft.h"

#include <complex>
#include <cstdint>

#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

template <class T>
py::object fft_staged(const py::array& x, bool inverse) {
  const ContiguousArray<std::complex<T>> input(x);
  return to_numpy(ops::fft_staged(input.view(), inverse));
}

bool is_complex128(const py::array& x) {
  return x.dtype().is(py::dtype::of<std::complex<double>>());
}

}  // namespace

void bind_fft(py::module_& m) {
  m.def(
      "fft_staged",
      [](const py::array& x, bool inverse) {
        return is_complex128(x) ? fft_staged<double>(x, inverse) : fft_staged<float>(x, inverse);
      },
      py::arg("x"), py::arg("inverse"),
      R"(Complex FFT of every row: X[k] = sum of x[j] exp(-2 pi i j k / N), unscaled; with inverse its
conjugate times 1 / N.

x: array (B, N); complex128 is computed in double, all else as complex64.
Returns (B, N) of the same precision.
Raises ValueError for bad shapes, RuntimeError when HIP fails or the size's route is not built.
Source: T. G. Stockham, High-speed convolution and correlation, AFIPS 1966.)");
  m.def(
      "fft_resident",
      [](uintptr_t x, uintptr_t out, int64_t rows, int64_t n, bool inverse, int prec, int device,
         uintptr_t stream) {
        ops::fft_resident(reinterpret_cast<devptr_t>(x), reinterpret_cast<devptr_t>(out), rows, n,
                          inverse, prec, device, reinterpret_cast<stream_t>(stream));
      },
      py::arg("x"), py::arg("out"), py::arg("B"), py::arg("N"), py::arg("inverse"), py::arg("prec"),
      py::arg("dev"), py::arg("stream"),
      R"(fft_staged on device memory; queues the work on `stream` and returns.

x, out: addresses on device `dev` of (B, N) complex values, row-major, interleaved; out may be x.
prec: 0 half storage with float arithmetic, 1 float, 2 double, 3 half storage with two rows packed
into half arithmetic where a kernel has it. stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for sizes out of bounds, RuntimeError when HIP fails
or the size's route is not built.)");
}

}  // namespace kevra::bindings
