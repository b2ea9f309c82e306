#include "cuda_like/ops/lfilter.h"

#include <cstdint>
#include <optional>

#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

// An optional array of history and the view of it that an operation takes.
template <class T>
struct History {
  explicit History(const py::object& object) {
    if (!object.is_none()) view = array.emplace(object).view();
  }
  const HostArray<T>* get() const { return view ? &*view : nullptr; }

  std::optional<ContiguousArray<T>> array;
  std::optional<HostArray<T>> view;
};

template <class T>
py::array lfilter_staged(const py::object& x, const py::object& cf, const ops::LfilterOrder& order,
                         const py::object& xh, const py::object& zy) {
  const ContiguousArray<T> input(x);
  const ContiguousArray<T> coefficients(cf);
  const History<T> inputs(xh);
  const History<T> outputs(zy);
  return to_numpy(
      ops::lfilter_staged(input.view(), coefficients.view(), order, inputs.get(), outputs.get()));
}

}  // namespace

void bind_lfilter(py::module_& m) {
  m.def(
      "lfilter_pack_resident",
      [](uintptr_t b, uintptr_t a, uintptr_t cf, int64_t p, int64_t m1, int prec, int device,
         uintptr_t stream) {
        ops::lfilter_pack_resident(reinterpret_cast<devptr_t>(b), reinterpret_cast<devptr_t>(a),
                                   reinterpret_cast<devptr_t>(cf), {p, m1}, prec, device,
                                   reinterpret_cast<stream_t>(stream));
      },
      py::arg("b_ptr"), py::arg("a_ptr"), py::arg("cf_ptr"), py::arg("p"), py::arg("m1"),
      py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      R"(Fills the coefficient block of a linear filter on device memory; queues the work and returns.

b_ptr: m1 feedforward values. a_ptr: p feedback values, without the leading 1 that both are divided by.
cf_ptr: room for m1 + p + 8 p^2 values: b, a, then A^(16 * 2^l) for l from 0 to 7, p x p and row-major, where A is
the filter's companion matrix. prec: 2 double, else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for p below 0, m1 below 1 or a p beyond the device's shared memory,
RuntimeError when HIP fails.
Source: G. E. Blelloch, Prefix sums and their applications, 1990, section 1.4.)");
  m.def(
      "lfilter_staged",
      [](const py::object& x, const py::object& cf, int64_t p, int64_t m1, const py::object& xh,
         const py::object& zy) {
        return is_double_input(x) ? lfilter_staged<double>(x, cf, {p, m1}, xh, zy)
                                  : lfilter_staged<float>(x, cf, {p, m1}, xh, zy);
      },
      py::arg("x"), py::arg("cf"), py::arg("p"), py::arg("m1"), py::arg("xh") = py::none(),
      py::arg("zy") = py::none(),
      R"(Linear filter of every row: y[n] = sum of b[m] x[n - m] for m < m1 - sum of a[j] y[n - 1 - j] for j < p.

x: array (rows, samples); float64 is stored in double, all else in float. Sums are double for both.
cf: 1-D, m1 values b, p values a, 8 p^2 values of the table that lfilter_pack_resident writes. p may be 0, a filter
without feedback.
xh: the m1 - 1 inputs before each row, (rows, m1 - 1), oldest first; for m1 = 1 of width 0 or 1. zy: the p outputs
before each row, (rows, p), latest first; needed with xh and ignored without. Without them rows start from rest.
Returns an array of the shape of x, in its unit.
Raises ValueError for bad shapes, TypeError for float16, RuntimeError when HIP fails.
Source: G. E. Blelloch, Prefix sums and their applications, 1990, section 1.4.)");
  m.def(
      "lfilter_resident",
      [](uintptr_t x, uintptr_t y, uintptr_t cf, int64_t rows, int64_t n, int64_t p, int64_t m1,
         int prec, int device, uintptr_t stream, uintptr_t xh, uintptr_t zy, int64_t threads,
         int64_t seq) {
        ops::lfilter_resident(
            {.x = reinterpret_cast<devptr_t>(x),
             .y = reinterpret_cast<devptr_t>(y),
             .cf = reinterpret_cast<devptr_t>(cf),
             .rows = rows,
             .n = n,
             .order = {p, m1},
             .history = {reinterpret_cast<devptr_t>(xh), reinterpret_cast<devptr_t>(zy)},
             .threads = threads,
             .seq = seq},
            prec, device, reinterpret_cast<stream_t>(stream));
      },
      py::arg("x_ptr"), py::arg("y_ptr"), py::arg("cf_ptr"), py::arg("rows"), py::arg("n"),
      py::arg("p"), py::arg("m1"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      py::arg("xh_ptr") = 0, py::arg("zy_ptr") = 0, py::arg("threads") = 256, py::arg("seq") = 16,
      R"(lfilter_staged on device memory; queues the work on `stream` and returns.

x_ptr, y_ptr: addresses on `device` of (rows, n) samples, row-major; they must not overlap.
cf_ptr: a coefficient block as lfilter_pack_resident writes it. prec: 2 double, else float storage; sums are double.
xh_ptr, zy_ptr: (rows, m1 - 1) inputs before each row, oldest first, and (rows, p) outputs, latest first; 0 for both
starts from rest, else both are needed where they have values.
threads: most threads a row, a power of two up to 256. seq: samples a thread; 16 with a block of
lfilter_pack_resident, and with any other value the call waits for `stream` to look at the block. stream: raw handle,
0 the null stream.
Pointers are not checked. Nothing is queued for no samples. Raises ValueError for values out of bounds, RuntimeError
when HIP fails.)");
}

}  // namespace kevra::bindings
