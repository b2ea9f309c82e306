#include "cuda_like/ops/features.h"

#include <cstdint>

#include "cuda_like/ops/onset.h"
#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bindings.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

template <class T>
py::array rms_staged(const py::object& y, int64_t frame_length, int64_t hop, bool center) {
  const ContiguousArray<T> input(y);
  return to_numpy(ops::rms_staged(input.view(), frame_length, hop, center));
}

template <class T>
py::array onset_strength_staged(const py::object& s) {
  const ContiguousArray<T> input(s);
  return to_numpy(ops::onset_strength_staged(input.view()));
}

void bind_onset(py::module_& m) {
  m.def(
      "onset_strength_resident",
      [](uintptr_t x, uintptr_t out, int64_t batch, int64_t frames, int64_t bins, int prec,
         int device, uintptr_t stream) {
        ops::onset_strength_resident(reinterpret_cast<devptr_t>(x), reinterpret_cast<devptr_t>(out),
                                     batch, frames, bins, prec, device,
                                     reinterpret_cast<stream_t>(stream));
      },
      R"(onset_strength_resident(m_ptr, out_ptr, batch, frames, bins, prec, device, stream)

Onset strength (spectral flux) on device memory; queues the work on `stream` and returns.

m_ptr, out_ptr: addresses on `device` of a (batch, frames, bins) spectrogram and (batch, frames) results, row-major.
prec: 0 half storage with float arithmetic, 1 float, 2 double. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no frames. Raises ValueError for sizes out of bounds, RuntimeError
when HIP fails.
Source: S. Boeck and G. Widmer, Maximum filter vibrato suppression for onset detection, DAFx 2013, section 2.)");
  m.def(
      "onset_strength_staged",
      [](const py::object& s) {
        return is_double_input(s) ? onset_strength_staged<double>(s)
                                  : onset_strength_staged<float>(s);
      },
      R"(onset_strength_staged(S)

Onset strength (spectral flux) per frame: the mean over bins of max(0, S[t] - S[t - 1]); 0 for the first frame.

S: spectrogram (batch, bins, frames); float64 is computed in double, all else in float. A bin whose change is NaN
counts as unchanged.
Returns (batch, frames), in the unit of S.
Raises ValueError for bad shapes, TypeError for float16, RuntimeError when HIP fails.
Source: S. Boeck and G. Widmer, Maximum filter vibrato suppression for onset detection, DAFx 2013, section 2.)");
}

}  // namespace

void bind_features(py::module_& m) {
  m.def(
      "rms_resident",
      [](uintptr_t x, uintptr_t out, int64_t batch, int64_t length, int64_t frames,
         int64_t frame_length, int64_t hop, bool center, int prec, int device, uintptr_t stream) {
        ops::rms_resident(reinterpret_cast<devptr_t>(x), reinterpret_cast<devptr_t>(out),
                          {batch, length, frames, frame_length, hop, center}, prec, device,
                          reinterpret_cast<stream_t>(stream));
      },
      R"(rms_resident(x_ptr, out_ptr, batch, length, frames, frame_length, hop, center, prec, device, stream)

Root-mean-square energy per frame on device memory; queues the work on `stream` and returns.

x_ptr, out_ptr: addresses on `device` of (batch, length) samples and (batch, frames) results, row-major.
frame_length, hop: in samples. center: reflect the signal by frame_length / 2 at both ends.
prec: 0 half storage with float arithmetic, 1 float, 2 double. stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for sizes out of bounds, RuntimeError when HIP fails.
Source: L. R. Rabiner and R. W. Schafer, Digital Processing of Speech Signals, 1978, section 4.2.)");
  m.def(
      "rms_staged",
      [](const py::object& y, int64_t frame_length, int64_t hop, bool center) {
        return is_double_input(y) ? rms_staged<double>(y, frame_length, hop, center)
                                  : rms_staged<float>(y, frame_length, hop, center);
      },
      R"(rms_staged(y, frame_length, hop, center)

Root-mean-square energy per frame: sqrt(sum of x^2 over a frame / frame_length).

y: array (batch, samples); float64 is computed in double, all else in float.
frame_length, hop: in samples. center: reflect the signal by frame_length / 2 at both ends.
Returns (batch, frames) with frames = (samples - frame_length % 2) / hop + 1 with center, else
(samples - frame_length) / hop + 1, in the signal's own unit.
Raises ValueError for bad shapes and sizes, TypeError for float16, RuntimeError when HIP fails.
Source: L. R. Rabiner and R. W. Schafer, Digital Processing of Speech Signals, 1978, section 4.2.)");
  bind_onset(m);
}

}  // namespace kevra::bindings
