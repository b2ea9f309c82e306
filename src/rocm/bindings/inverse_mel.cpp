#include "cuda_like/ops/inverse_mel.h"

#include <cstdint>
#include <stdexcept>
#include <string>

#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

// The matrix argument of the inverse mel scale; `fault` begins the refusal of another shape. Lives
// as long as the call that it is the argument of.
struct MatrixArgument {
  MatrixArgument(const py::object& object, const std::string& key, const char* fault = "")
      : array(object), matrix{} {
    if (array.ndim() != 2) {
      throw std::invalid_argument(std::string(fault) + "inverse_mel_scale: P has " +
                                  std::to_string(array.ndim()) +
                                  " dimensions, must be a 2-D (n_out, n_in) array");
    }
    matrix = {array.data(), array.shape(0), array.shape(1), key};
  }

  py::array_t<double, py::array::c_style | py::array::forcecast> array;
  ops::InverseMelMatrix matrix;
};

template <class T>
py::array inverse_mel_scale_staged(const py::object& m, const ops::InverseMelMatrix& matrix,
                                   bool clamp) {
  const ContiguousArray<T> input(m);
  return to_numpy(ops::inverse_mel_scale_staged<T>(input.view(), matrix, clamp));
}

void bind_inverse_mel_adjoint(py::module_& m) {
  m.def(
      "inverse_mel_scale_adjoint_resident",
      [](uintptr_t m_ptr, uintptr_t g_ptr, uintptr_t gm_ptr, int64_t frames,
         const py::object& matrix, const std::string& key, bool clamp, int prec, int device,
         uintptr_t stream) {
        const MatrixArgument argument(matrix, key, "invalid axis: ");
        ops::inverse_mel_scale_adjoint_resident({.m = reinterpret_cast<devptr_t>(m_ptr),
                                                 .g = reinterpret_cast<devptr_t>(g_ptr),
                                                 .gm = reinterpret_cast<devptr_t>(gm_ptr),
                                                 .rows = frames,
                                                 .matrix = argument.matrix,
                                                 .clamp = clamp,
                                                 .device = device,
                                                 .stream = reinterpret_cast<stream_t>(stream)},
                                                prec);
      },
      py::arg("m_ptr"), py::arg("g_ptr"), py::arg("gm_ptr"), py::arg("frames"), py::arg("P"),
      py::arg("key"), py::arg("clamp"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      R"(Gradient of a function E of the bins that inverse_mel_scale_resident makes, with respect to the bands; queues the
work on `stream` and returns.

m_ptr: address on `device` of the forward pass's bands, (frames, n_in), row-major; read where clamp is set. g_ptr:
address of dE/dbins, (frames, n_out). gm_ptr: address of (frames, n_in) reals, which are overwritten.
P, key: as in inverse_mel_scale_staged, and known by the same key. clamp: as in the forward pass, whose product is
computed anew; a bin that came out below 0 passes nothing on.
prec: 1 float, 2 double; half storage is refused. stream: raw handle, 0 the null stream.
Pointers are not checked. The first call for a matrix waits for the device. Nothing is queued for no frames. Raises
ValueError for sizes out of bounds and for half, RuntimeError when HIP fails.
Source: the transposed product; R. Penrose, A generalized inverse for matrices, Proc. Cambridge Phil. Soc. 51, 1955.)");
}

}  // namespace

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
  bind_inverse_mel_adjoint(m);
}

}  // namespace kevra::bindings
