#include "cuda_like/ops/convolution.h"

#include <complex>
#include <cstdint>

#include "cuda_like/ops/convolution_adjoint.h"
#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

template <class T>
py::array conv_fft_staged(const py::object& a, const py::object& b, int64_t nf, int64_t start,
                          int64_t outlen) {
  const ContiguousArray<T> signal(a);
  const ContiguousArray<T> kernel(b);
  return to_numpy(ops::conv_fft_staged(signal.view(), kernel.view(), nf, start, outlen));
}

template <class T>
py::array conv_cplx_staged(const py::object& a, const py::object& b, int64_t nf, int64_t start,
                           int64_t outlen) {
  const ContiguousArray<std::complex<T>> signal(a);
  const ContiguousArray<std::complex<T>> kernel(b);
  return to_numpy(ops::conv_cplx_staged(signal.view(), kernel.view(), nf, start, outlen));
}

template <class T>
py::array conv_direct_staged(const py::array& a, const py::array& b, int64_t start,
                             int64_t outlen) {
  const ContiguousArray<T> signal(a);
  const ContiguousArray<T> kernel(b);
  return to_numpy(ops::conv_direct_staged(signal.view(), kernel.view(), start, outlen));
}

ops::ConvolutionCall call_of(uintptr_t a, uintptr_t b, uintptr_t y, int64_t rows, int64_t rows_b,
                             int64_t n, int64_t m, int64_t start, int64_t outlen) {
  return {.a = reinterpret_cast<devptr_t>(a),
          .b = reinterpret_cast<devptr_t>(b),
          .y = reinterpret_cast<devptr_t>(y),
          .rows = rows,
          .rows_b = rows_b,
          .n = n,
          .m = m,
          .start = start,
          .outlen = outlen};
}

using TransformResident = void (*)(const ops::ConvolutionCall&, int64_t, int, int, stream_t);

// conv_fft_resident and conv_cplx_resident take the same arguments.
void bind_through_transforms(py::module_& m, const char* name, TransformResident convolve,
                             const char* doc) {
  m.def(
      name,
      [convolve](uintptr_t a, uintptr_t b, uintptr_t y, int64_t rows, int64_t rows_b, int64_t n,
                 int64_t taps, int64_t nf, int64_t start, int64_t outlen, int prec, int device,
                 uintptr_t stream) {
        convolve(call_of(a, b, y, rows, rows_b, n, taps, start, outlen), nf, prec, device,
                 reinterpret_cast<stream_t>(stream));
      },
      py::arg("a_ptr"), py::arg("b_ptr"), py::arg("y_ptr"), py::arg("rows"), py::arg("rows_b"),
      py::arg("n"), py::arg("m"), py::arg("nf"), py::arg("start"), py::arg("outlen"),
      py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0, doc);
}

void bind_conv_direct(py::module_& m) {
  m.def(
      "conv_direct_staged",
      [](const py::array& a, const py::array& b, int64_t start, int64_t outlen) {
        return a.dtype().equal(py::dtype::of<double>())
                   ? conv_direct_staged<double>(a, b, start, outlen)
                   : conv_direct_staged<float>(a, b, start, outlen);
      },
      py::arg("a"), py::arg("b"), py::arg("start"), py::arg("outlen"),
      R"(Convolution of every row as a direct sum, for short kernels.

a: array (rows, n); float64 is computed in double, all else as float32. b: (rows, m), or (1, m) for all rows.
start, outlen: which samples of the convolution to return; beyond its n + m - 1 they are 0.
Returns (rows, outlen), in the unit of a times that of b.
Raises ValueError for bad shapes and sizes, RuntimeError when HIP fails.
Source: A. V. Oppenheim and R. W. Schafer, Discrete-Time Signal Processing, 1989, section 2.3.)");
  m.def(
      "conv_direct_resident",
      [](uintptr_t a, uintptr_t b, uintptr_t y, int64_t rows, int64_t rows_b, int64_t n,
         int64_t taps, int64_t start, int64_t outlen, int prec, int device, uintptr_t stream) {
        ops::conv_direct_resident(call_of(a, b, y, rows, rows_b, n, taps, start, outlen), prec,
                                  device, reinterpret_cast<stream_t>(stream));
      },
      py::arg("a_ptr"), py::arg("b_ptr"), py::arg("y_ptr"), py::arg("rows"), py::arg("rows_b"),
      py::arg("n"), py::arg("m"), py::arg("start"), py::arg("outlen"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(conv_direct_staged on device memory; queues the work on `stream` and returns.

a_ptr, b_ptr, y_ptr: addresses on `device` of (rows, n), (rows_b, m) and (rows, outlen) samples, row-major; y must not
overlap the others. rows_b: rows, or another number for one kernel that all rows share.
prec: 0 half storage with float arithmetic, 2 double, else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no output. Raises ValueError for sizes out of bounds, RuntimeError
when HIP fails.)");
}

void bind_conv_adjoint(py::module_& m) {
  m.def(
      "conv_adjoint_resident",
      [](uintptr_t gy, uintptr_t w, uintptr_t out, int64_t rows, int64_t rows_w, int64_t len_g,
         int64_t len_w, int64_t nf, int64_t off, int64_t sl_start, int64_t sl_len, int sum_rows,
         int cplx, int prec, int device, uintptr_t stream) {
        ops::conv_adjoint_resident({.gy = reinterpret_cast<devptr_t>(gy),
                                    .w = reinterpret_cast<devptr_t>(w),
                                    .out = reinterpret_cast<devptr_t>(out),
                                    .rows = rows,
                                    .rows_w = rows_w,
                                    .len_g = len_g,
                                    .len_w = len_w,
                                    .nf = nf,
                                    .off = off,
                                    .sl_start = sl_start,
                                    .sl_len = sl_len,
                                    .sum_rows = sum_rows != 0,
                                    .is_complex = cplx != 0},
                                   prec, device, reinterpret_cast<stream_t>(stream));
      },
      py::arg("gy_ptr"), py::arg("w_ptr"), py::arg("out_ptr"), py::arg("rows"), py::arg("rows_w"),
      py::arg("len_g"), py::arg("len_w"), py::arg("nf"), py::arg("off"), py::arg("sl_start"),
      py::arg("sl_len"), py::arg("sum_rows"), py::arg("cplx"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Correlation of every row through transforms of length nf, of which the gradient of a convolution with respect to
either operand is made; queues the work on `stream` and returns.

With row r of gy at offset `off` of nf zeros, p, and w turned around and conjugated at the start of nf zeros,
q[j] = conj(w[len_w - 1 - j]), c is the circular convolution of p and q, and row r of the result is c[sl_start] to
c[sl_start + sl_len - 1]. With sl_start = len_w - 1, sample t is the sum over i of p[i] conj(w[i - t]).
y = conv_fft_resident(a, b) of n and m samples, cut at `start`, has from its gradient gy the gradient of a by w = b,
off = start, sl_start = m - 1, sl_len = n; of b by w = a, off = start, sl_start = n - 1, sl_len = m, and sum_rows where
one b served all rows. nf is at least n + m - 1.

gy_ptr, w_ptr, out_ptr: addresses on `device` of (rows, len_g), (rows_w, len_w) and (rows, sl_len) samples, row-major,
with cplx complex and interleaved. rows_w: rows, or another number for one w, the first row, that all rows share.
sum_rows: adds the rows of the result, in their order, into one of (sl_len). Of no rows that is 0.
prec: 0 half storage with float arithmetic, with cplx float; 2 double, else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for what does not fit into nf, RuntimeError when HIP fails.
Source: A. V. Oppenheim and R. W. Schafer, Discrete-Time Signal Processing, 1989, section 2.9; T. G. Stockham, High-speed
convolution and correlation, AFIPS 1966.)");
}

}  // namespace

void bind_convolution(py::module_& m) {
  m.def(
      "conv_fft_staged",
      [](const py::object& a, const py::object& b, int64_t nf, int64_t start, int64_t outlen) {
        return is_double_input(a) ? conv_fft_staged<double>(a, b, nf, start, outlen)
                                  : conv_fft_staged<float>(a, b, nf, start, outlen);
      },
      py::arg("a"), py::arg("b"), py::arg("nf"), py::arg("start"), py::arg("outlen"),
      R"(Convolution of every row through real transforms of length nf.

a: array (rows, n); float64 is computed in double, all else in float. b: (rows, m), or (1, m) for all rows.
nf: at least n and m; below n + m - 1 the convolution wraps around.
start, outlen: which samples of the convolution to return, within nf.
Returns (rows, outlen), in the unit of a times that of b.
Raises ValueError for bad shapes and sizes, TypeError for float16, RuntimeError when HIP fails.
Source: T. G. Stockham, High-speed convolution and correlation, AFIPS 1966.)");
  bind_through_transforms(
      m, "conv_fft_resident", &ops::conv_fft_resident,
      R"(conv_fft_staged on device memory; queues the work on `stream` and returns.

a_ptr, b_ptr, y_ptr: addresses on `device` of (rows, n), (rows_b, m) and (rows, outlen) samples, row-major; y may be a
or b where it fits. rows_b: rows, or another number for one kernel that all rows share.
prec: 0 half storage with float arithmetic, 2 double, else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no output. Raises ValueError for sizes out of bounds, RuntimeError
when HIP fails.)");
  m.def(
      "conv_cplx_staged",
      [](const py::object& a, const py::object& b, int64_t nf, int64_t start, int64_t outlen) {
        return is_double_input(a) ? conv_cplx_staged<double>(a, b, nf, start, outlen)
                                  : conv_cplx_staged<float>(a, b, nf, start, outlen);
      },
      py::arg("a"), py::arg("b"), py::arg("nf"), py::arg("start"), py::arg("outlen"),
      R"(Convolution of every complex row through transforms of length nf.

a: array (rows, n); complex128 and float64 are computed in double, all else in float. b: (rows, m), or (1, m) for all
rows. nf: at least n and m; below n + m - 1 the convolution wraps around.
start, outlen: which samples of the convolution to return, within nf.
Returns (rows, outlen) complex, in the unit of a times that of b.
Raises ValueError for bad shapes and sizes, TypeError for float16, RuntimeError when HIP fails.
Source: T. G. Stockham, High-speed convolution and correlation, AFIPS 1966.)");
  bind_through_transforms(
      m, "conv_cplx_resident", &ops::conv_cplx_resident,
      R"(conv_cplx_staged on device memory; queues the work on `stream` and returns.

a_ptr, b_ptr, y_ptr: addresses on `device` of (rows, n), (rows_b, m) and (rows, outlen) complex samples, row-major,
interleaved; y may be a or b where it fits. rows_b: rows, or another number for one kernel that all rows share.
prec: 2 double, else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no output. Raises ValueError for sizes out of bounds, RuntimeError
when HIP fails.)");
  bind_conv_direct(m);
  bind_conv_adjoint(m);
}

}  // namespace kevra::bindings
