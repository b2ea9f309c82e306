#include "cuda_like/ops/spectral.h"

#include <cstdint>

#include "cuda_like/ops/contrast.h"
#include "rocm/bindings/arrays.h"
#include "rocm/bindings/bands.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/windows.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

// These operations stage in double alone.
ContiguousArray<double> double_input(const py::object& y) {
  is_double_input(y);  // refuses float16
  return ContiguousArray<double>(y);
}

ops::StftCall signal_call(uintptr_t x_ptr, uintptr_t out_ptr, int64_t batch, int64_t length,
                          const WindowArgument& window, int64_t n_fft, int64_t hop, bool center,
                          int device, uintptr_t stream) {
  return {.y = reinterpret_cast<devptr_t>(x_ptr),
          .out = reinterpret_cast<devptr_t>(out_ptr),
          .batch = batch,
          .length = length,
          .n_fft = n_fft,
          .hop = hop,
          .center = center,
          .window = window.spec,
          .device = device,
          .stream = reinterpret_cast<stream_t>(stream)};
}

void bind_spectral_reduce(py::module_& m) {
  m.def(
      "spectral_reduce_resident",
      [](uintptr_t m_ptr, uintptr_t out_ptr, int64_t rows, int64_t n, int stat, double fstep,
         double p, double amin, double roll, int prec, int device, uintptr_t stream) {
        ops::spectral_reduce_resident(
            reinterpret_cast<devptr_t>(m_ptr), reinterpret_cast<devptr_t>(out_ptr), rows, n,
            {stat, fstep, p, amin, roll}, prec, device, reinterpret_cast<stream_t>(stream));
      },
      py::arg("m_ptr"), py::arg("out_ptr"), py::arg("rows"), py::arg("n"), py::arg("stat"),
      py::arg("fstep"), py::arg("p"), py::arg("amin"), py::arg("roll"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(One number of each row of magnitudes in device memory; queues the work on `stream` and returns.

m_ptr, out_ptr: addresses on `device` of (rows, n) magnitudes and (rows) results, row-major.
stat, fstep, p, amin, roll: as in spectral_staged.
prec: 0 half storage with float arithmetic, 2 double, anything else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no rows. Raises ValueError for a stat, an exponent and sizes out of
bounds, RuntimeError when HIP fails.
Source: as spectral_staged.)");
}

void bind_spectral(py::module_& m) {
  m.def(
      "spectral_staged",
      [](const py::object& y, const py::object& window, int64_t n_fft, int64_t hop, bool center,
         int stat, double fstep, double p, double amin, double roll) {
        const auto input = double_input(y);
        const WindowArgument shape(window);
        return to_numpy(ops::spectral_staged(input.view(), {shape.spec, n_fft, hop, center},
                                             {stat, fstep, p, amin, roll}));
      },
      py::arg("y"), py::arg("window"), py::arg("n_fft"), py::arg("hop"), py::arg("center"),
      py::arg("stat"), py::arg("fstep"), py::arg("p"), py::arg("amin"), py::arg("roll"),
      R"(One number of each short-time spectrum, of its n = n_fft // 2 + 1 magnitudes m[i] at the frequencies fstep i.

y: array (batch, samples) of reals; computed in double. window, n_fft, hop, center: as in stft_staged.
stat: 0 centroid, c = sum(fstep i m[i]) / s with s = max(sum(m), 1e-10);
1 bandwidth, (sum(m[i] abs(fstep i - c)**p) / s)**(1 / p);
2 flatness, the geometric mean of max(m[i]**2, amin) over their arithmetic mean;
3 rolloff, fstep k with the first bin k at which the running sum of m reaches roll sum(m), else the last bin.
fstep: the distance of two bins in the unit that the result is to have, rate / n_fft for Hz.
p: exponent of the bandwidth, finite and above 0. amin: power, in the square of y's unit. roll: a share, as 0.85. What
a stat does not use counts for nothing.
Returns (batch, frames), float64.
Raises ValueError for bad shapes, sizes, windows, stat and p, TypeError for float16, RuntimeError when HIP fails.
Source: G. Peeters, A large set of audio features for sound description, CUIDADO project report, 2004; flatness:
J. D. Johnston, Transform coding of audio signals using perceptual noise criteria, IEEE J. Sel. Areas Commun. 6, 1988.)");
  m.def(
      "spectral_signal_resident",
      [](uintptr_t x_ptr, uintptr_t out_ptr, int64_t batch, int64_t length,
         const py::object& window, int64_t n_fft, int64_t hop, bool center, int stat, double fstep,
         double p, double amin, double roll, int prec, int device, uintptr_t stream) {
        const WindowArgument shape(window);
        return ops::spectral_signal_resident(
            signal_call(x_ptr, out_ptr, batch, length, shape, n_fft, hop, center, device, stream),
            {stat, fstep, p, amin, roll}, prec);
      },
      py::arg("x_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"), py::arg("window"),
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("stat"), py::arg("fstep"),
      py::arg("p"), py::arg("amin"), py::arg("roll"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      R"(One number of each short-time spectrum of a signal in device memory, in one kernel that stores no spectrum;
queues the work on `stream` and returns.

Returns True, or False where nothing was queued, since no such kernel serves: n_fft is no power of two, a block's
shared memory does not hold a frame and its magnitudes, or prec is 0. stft_resident with "magnitude" and
spectral_reduce_resident take every case.
x_ptr, out_ptr: addresses on `device` of (batch, length) samples and (batch, frames) results, row-major.
window, n_fft, hop, center, stat, fstep, p, amin, roll: as in spectral_staged.
prec: 2 double, 0 gives False, anything else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for a stat, an exponent and sizes out of bounds, RuntimeError when HIP
fails.
Source: as spectral_staged.)");
  bind_spectral_reduce(m);
}

void bind_contrast_reduce(py::module_& m) {
  m.def(
      "contrast_reduce_resident",
      [](uintptr_t m_ptr, uintptr_t out_ptr, int64_t rows, int64_t n, const py::object& bt,
         const py::object& bq, double amin, bool linear, int prec, int device, uintptr_t stream) {
        const BandArgument bands(bt, bq);
        ops::contrast_reduce_resident(
            reinterpret_cast<devptr_t>(m_ptr), reinterpret_cast<devptr_t>(out_ptr), rows, n,
            bands.options(amin, linear), prec, device, reinterpret_cast<stream_t>(stream));
      },
      py::arg("m_ptr"), py::arg("out_ptr"), py::arg("rows"), py::arg("n"), py::arg("bt"),
      py::arg("bq"), py::arg("amin"), py::arg("linear"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      R"(Contrast of bands of rows of magnitudes in device memory; queues the work on `stream` and returns.

m_ptr, out_ptr: addresses on `device` of (rows, n) magnitudes and (rows, n_bands) results, row-major.
bt, bq, amin, linear: as in contrast_staged; the last edge is n at most. Where a block's shared memory cannot hold the
widest band, padded to a power of two, the q-th magnitudes are found by histograms: magnitudes less than 1 / 65536 of a
band's range apart may count as equal, at the middle between them.
prec: 0 half storage with float arithmetic, 2 double, anything else float. stream: raw handle, 0 the null stream.
Pointers are not checked. The first call for a table of bands waits for the device. Nothing is queued for no rows or
bands. Raises ValueError for bands and sizes out of bounds, RuntimeError when HIP fails.
Source: as contrast_staged.)");
}

void bind_contrast(py::module_& m) {
  m.def(
      "contrast_staged",
      [](const py::object& y, const py::object& window, int64_t n_fft, int64_t hop, bool center,
         const py::object& bt, const py::object& bq, double amin, bool linear) {
        const auto input = double_input(y);
        const WindowArgument shape(window);
        const BandArgument bands(bt, bq);
        return frames_last(ops::contrast_staged(input.view(), {shape.spec, n_fft, hop, center},
                                                bands.options(amin, linear)));
      },
      py::arg("y"), py::arg("window"), py::arg("n_fft"), py::arg("hop"), py::arg("center"),
      py::arg("bt"), py::arg("bq"), py::arg("amin"), py::arg("linear"),
      R"(Contrast of bands of short-time spectra: how far a band's largest magnitudes stand above its smallest.

y: array (batch, samples) of reals; computed in double. window, n_fft, hop, center: as in stft_staged.
bt: n_bands + 1 bins, ascending, from 0 to n_fft // 2 + 1; band b has the bins bt[b] up to, not including, bt[b + 1].
bq: n_bands counts q, from 1 to the band's width: the peak is the mean of the band's q largest magnitudes, the valley
that of its q smallest.
linear: peak - valley, in the unit of y times the window's; else 10 log10(peak / valley), both raised to amin first.
Returns (batch, n_bands, frames), float64; a view whose bands are adjacent in memory.
Raises ValueError for bad shapes, sizes, windows and bands, TypeError for float16, RuntimeError when HIP fails.
Source: D.-N. Jiang, L. Lu, H.-J. Zhang, J.-H. Tao and L.-H. Cai, Music type classification by spectral contrast
feature, ICME 2002.)");
  m.def(
      "contrast_signal_resident",
      [](uintptr_t x_ptr, uintptr_t out_ptr, int64_t batch, int64_t length,
         const py::object& window, int64_t n_fft, int64_t hop, bool center, const py::object& bt,
         const py::object& bq, double amin, bool linear, int prec, int device, uintptr_t stream) {
        const WindowArgument shape(window);
        const BandArgument bands(bt, bq);
        return ops::contrast_signal_resident(
            signal_call(x_ptr, out_ptr, batch, length, shape, n_fft, hop, center, device, stream),
            bands.options(amin, linear), prec);
      },
      py::arg("x_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"), py::arg("window"),
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("bt"), py::arg("bq"),
      py::arg("amin"), py::arg("linear"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      R"(Contrast of bands of short-time spectra of a signal in device memory, in one kernel that stores no spectrum;
queues the work on `stream` and returns.

Returns True, or False where nothing was queued, since no such kernel serves: n_fft is no power of two, a block's
shared memory does not hold a frame, its magnitudes and the widest band padded to a power of two, or prec is 0.
stft_resident with "magnitude" and contrast_reduce_resident take every case.
x_ptr, out_ptr: addresses on `device` of (batch, length) samples and (batch, frames, n_bands) results, row-major.
window, n_fft, hop, center, bt, bq, amin, linear: as in contrast_staged.
prec: 2 double, 0 gives False, anything else float. stream: raw handle, 0 the null stream.
Pointers are not checked. The first call for a table of bands waits for the device. Raises ValueError for bands and
sizes out of bounds, RuntimeError when HIP fails.
Source: as contrast_staged.)");
  bind_contrast_reduce(m);
}

}  // namespace

void bind_statistics(py::module_& m) {
  bind_spectral(m);
  bind_contrast(m);
}

}  // namespace kevra::bindings
