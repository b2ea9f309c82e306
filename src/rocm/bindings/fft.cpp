#include "cuda_like/ops/fft.h"

#include <complex>
#include <cstdint>

#include "cuda_like/ops/rfft.h"
#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

template <class T>
py::array fft_staged(const py::array& x, bool inverse) {
  const ContiguousArray<std::complex<T>> input(x);
  return to_numpy(ops::fft_staged(input.view(), inverse));
}

template <class T>
py::array rfft_staged(const py::array& x) {
  const ContiguousArray<T> input(x);
  return to_numpy(ops::rfft_staged(input.view()));
}

template <class T>
py::array irfft_staged(const py::array& x, int64_t n) {
  const ContiguousArray<std::complex<T>> input(x);
  return to_numpy(ops::irfft_staged(input.view(), n));
}

template <class T>
bool holds(const py::array& x) {
  return x.dtype().equal(py::dtype::of<T>());
}
bool is_complex128(const py::array& x) {
  return holds<std::complex<double>>(x);
}

using RfftResident = void (*)(devptr_t, devptr_t, int64_t, int64_t, int, int, stream_t);

// rfft_resident and irfft_resident take the same arguments.
auto rfft_on_device(RfftResident transform) {
  return [transform](uintptr_t x, uintptr_t out, int64_t rows, int64_t n, int prec, int device,
                     uintptr_t stream) {
    transform(reinterpret_cast<devptr_t>(x), reinterpret_cast<devptr_t>(out), rows, n, prec, device,
              reinterpret_cast<stream_t>(stream));
  };
}

void bind_rfft(py::module_& m) {
  m.def(
      "rfft_staged",
      [](const py::array& x) {
        return holds<double>(x) ? rfft_staged<double>(x) : rfft_staged<float>(x);
      },
      py::arg("x"),
      R"(FFT of every real row: X[k] = sum of x[t] exp(-2 pi i t k / N) for k from 0 to N // 2, unscaled.

x: array (B, N); float64 is computed in double, all else as float32.
Returns (B, N // 2 + 1) complex of the same precision, in the unit of x.
Raises ValueError for bad shapes, RuntimeError when HIP fails.
Source: H. V. Sorensen et al., Real-valued fast Fourier transform algorithms, IEEE Trans. ASSP 1987.)");
  m.def(
      "irfft_staged",
      [](const py::array& x, int64_t n) {
        return is_complex128(x) ? irfft_staged<double>(x, n) : irfft_staged<float>(x, n);
      },
      py::arg("X"), py::arg("n"),
      R"(The way back from rfft_staged: n real samples a row from n // 2 + 1 bins, scaled by 1 / n.

X: array (B, n // 2 + 1); complex128 is computed in double, all else as complex64. The imaginary
parts of bin 0 and, for even n, of bin n / 2 are ignored.
Returns (B, n) real of the same precision, in the unit of X.
Raises ValueError for bad shapes and sizes, RuntimeError when HIP fails.
Source: H. V. Sorensen et al., Real-valued fast Fourier transform algorithms, IEEE Trans. ASSP 1987.)");
  m.def("rfft_resident", rfft_on_device(&ops::rfft_resident), py::arg("x"), py::arg("out"),
        py::arg("B"), py::arg("N"), py::arg("prec"), py::arg("dev"), py::arg("stream"),
        R"(rfft_staged on device memory; queues the work on `stream` and returns.

x, out: addresses on device `dev` of (B, N) reals and (B, N // 2 + 1) complex values, row-major,
interleaved; they must not overlap. prec: 0 half storage with float arithmetic, 1 float, 2 double,
3 as 0. stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for sizes out of bounds, RuntimeError when HIP fails.)");
  m.def("irfft_resident", rfft_on_device(&ops::irfft_resident), py::arg("X"), py::arg("out"),
        py::arg("B"), py::arg("n"), py::arg("prec"), py::arg("dev"), py::arg("stream"),
        R"(irfft_staged on device memory; queues the work on `stream` and returns.

X, out: addresses on device `dev` of (B, n // 2 + 1) complex values and (B, n) reals, row-major,
interleaved; they must not overlap. prec: 0 half storage with float arithmetic, 1 float, 2 double,
3 as 0. stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for sizes out of bounds, RuntimeError when HIP fails.)");
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
Raises ValueError for bad shapes, RuntimeError when HIP fails.
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
Pointers are not checked. Raises ValueError for sizes out of bounds, RuntimeError when HIP fails.
)");
  bind_rfft(m);
}

}  // namespace kevra::bindings
