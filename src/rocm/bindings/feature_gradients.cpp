#include <cstdint>

#include "cuda_like/ops/contrast_adjoint.h"
#include "cuda_like/ops/db_adjoint.h"
#include "cuda_like/ops/feature_adjoints.h"
#include "cuda_like/ops/spectral_adjoint.h"
#include "rocm/bindings/bands.h"
#include "rocm/bindings/bindings.h"

namespace py = pybind11;

namespace kevra::bindings {
namespace {

devptr_t address(uintptr_t p) {
  return reinterpret_cast<devptr_t>(p);
}

void bind_spectral_adjoint(py::module_& m) {
  m.def(
      "spectral_adjoint_resident",
      [](uintptr_t m_ptr, uintptr_t gy_ptr, uintptr_t gm_ptr, int64_t rows, int64_t n, int stat,
         double fstep, double p, double amin, int prec, int device, uintptr_t stream) {
        ops::spectral_adjoint_resident(
            address(m_ptr), address(gy_ptr), address(gm_ptr), rows, n,
            {.stat = stat, .fstep = fstep, .p = p, .amin = amin, .roll = 0}, prec, device,
            reinterpret_cast<stream_t>(stream));
      },
      py::arg("m_ptr"), py::arg("gy_ptr"), py::arg("gm_ptr"), py::arg("rows"), py::arg("n"),
      py::arg("stat"), py::arg("fstep"), py::arg("p"), py::arg("amin"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Gradient of a function of spectral statistics with respect to the magnitudes; queues the work on `stream` and
returns.

m_ptr, gy_ptr, gm_ptr: addresses on `device` of the (rows, n) magnitudes that spectral_reduce_resident was given, the
(rows) gradients of its results, and (rows, n) gradients to be written, all row-major.
stat: 0 centroid, 1 bandwidth, 2 flatness; 3, the rolloff, moves from bin to bin and has no gradient.
fstep, p, amin: as in spectral_staged.
Below a sum of 1e-10 the centroid is divided by that constant, and so is its gradient. A row without width, such as
silence or a single bin, has the bandwidth gradient 0. Magnitudes below sqrt(amin) have the flatness gradient 0.
prec: 2 double, 0 refused, anything else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no rows. Raises ValueError for half, for a stat without gradient, an
exponent and sizes out of bounds, RuntimeError when HIP fails.
Source: the derivative of spectral_staged's formulas.)");
}

void bind_contrast_adjoint(py::module_& m) {
  m.def(
      "contrast_adjoint_resident",
      [](uintptr_t m_ptr, uintptr_t gy_ptr, uintptr_t gm_ptr, int64_t rows, int64_t n,
         const py::object& bt, const py::object& bq, double amin, bool linear, int prec, int device,
         uintptr_t stream) {
        const BandArgument bands(bt, bq);
        ops::contrast_adjoint_resident(address(m_ptr), address(gy_ptr), address(gm_ptr), rows, n,
                                       bands.options(amin, linear), prec, device,
                                       reinterpret_cast<stream_t>(stream));
      },
      py::arg("m_ptr"), py::arg("gy_ptr"), py::arg("gm_ptr"), py::arg("rows"), py::arg("n"),
      py::arg("bt"), py::arg("bq"), py::arg("amin"), py::arg("linear"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Gradient of a function of spectral contrasts with respect to the magnitudes; queues the work on `stream` and
returns.

m_ptr, gy_ptr, gm_ptr: addresses on `device` of the (rows, n) magnitudes that contrast_reduce_resident was given, the
(rows, n_bands) gradients of its results, and (rows, n) gradients to be written, all row-major.
bt, bq, amin, linear: as in contrast_staged; the last edge is n at most.
The q largest magnitudes of a band take 1/q of the peak's gradient each, the q smallest 1/q of the valley's; of equal
ones those at lower bins count as smaller. Bins of no band get 0. Where a block's shared memory cannot hold the widest
band, padded to a power of two, with its places, the q-th magnitudes are found by histograms in float: those less than
1 / 65536 of a band's range from the q-th may share its part, and a band of equal magnitudes gets 0. In decibels a peak
or valley below amin passes nothing.
prec: 2 double, 0 refused, anything else float. stream: raw handle, 0 the null stream.
Pointers are not checked. The first call for a table of bands waits for the device. Nothing is queued for no rows.
Raises ValueError for half and for bands and sizes out of bounds, RuntimeError when HIP fails.
Source: the derivative of contrast_staged's formulas.)");
}

void bind_db_adjoint(py::module_& m) {
  m.def(
      "db_adjoint_resident",
      [](uintptr_t s_ptr, uintptr_t g_ptr, uintptr_t gs_ptr, int64_t items, int64_t n, double mul,
         double amin, double topdb, bool hastop, int prec, int device, uintptr_t stream) {
        ops::db_adjoint_resident(address(s_ptr), address(g_ptr), address(gs_ptr),
                                 {.items = items,
                                  .n = n,
                                  .mul = mul,
                                  .amin = amin,
                                  .cref = 0,
                                  .top = topdb,
                                  .has_top = hastop},
                                 prec, device, reinterpret_cast<stream_t>(stream));
      },
      py::arg("s_ptr"), py::arg("g_ptr"), py::arg("gs_ptr"), py::arg("items"), py::arg("n"),
      py::arg("mul"), py::arg("amin"), py::arg("topdb"), py::arg("hastop"), py::arg("prec"),
      py::arg("device") = 0, py::arg("stream") = 0,
      R"(Gradient of a function of decibels with respect to the values; queues the work on `stream` and returns.

s_ptr, g_ptr, gs_ptr: addresses on `device` of the (items, n) values that db_resident was given, the gradients of its
results, and gradients to be written, all (items, n), row-major.
mul, amin, topdb, hastop: as in db_resident. The reference is a constant: one that depends on the values is the
caller's to differentiate.
gs = g mul / (s ln 10), and 0 for values below amin. With hastop a value at the floor follows the item's largest, which
takes its gradient, split evenly where several are the largest; a value exactly at the floor gives half of it.
prec: 2 double, 0 refused, anything else float. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no items. Raises ValueError for half and a negative n, RuntimeError
when HIP fails.
Source: the derivative of db_resident's formula.)");
}

void bind_frame_adjoints(py::module_& m) {
  m.def(
      "rms_adjoint_resident",
      [](uintptr_t x, uintptr_t rms, uintptr_t gy, uintptr_t gx, int64_t batch, int64_t length,
         int64_t frames, int64_t frame_length, int64_t hop, bool center, int prec, int device,
         uintptr_t stream) {
        ops::rms_adjoint_resident({.x = address(x),
                                   .rms = address(rms),
                                   .gy = address(gy),
                                   .gx = address(gx),
                                   .shape = {batch, length, frames, frame_length, hop, center}},
                                  prec, device, reinterpret_cast<stream_t>(stream));
      },
      R"(rms_adjoint_resident(x_ptr, rms_ptr, gy_ptr, gx_ptr, batch, length, frames, frame_length, hop, center, prec,
device, stream)

Gradient of a function of root-mean-square energies with respect to the signal; queues the work on `stream` and returns.

x_ptr, rms_ptr, gy_ptr, gx_ptr: addresses on `device` of the (batch, length) samples that rms_resident was given, its
(batch, frames) results, their gradients, and (batch, length) gradients to be written, all row-major.
frame_length, hop, center: as in rms_resident. A sample gathers from every place at which a frame reads it, reflected
ones included. A silent frame passes nothing.
prec: 1 float, 2 double; half storage is refused. stream: raw handle, 0 the null stream.
Pointers are not checked. Raises ValueError for half and for sizes out of bounds, RuntimeError when HIP fails.
Source: the derivative of rms_staged's formula.)");
  m.def(
      "onset_strength_adjoint_resident",
      [](uintptr_t s, uintptr_t gy, uintptr_t gm, int64_t batch, int64_t frames, int64_t bins,
         int prec, int device, uintptr_t stream) {
        ops::onset_strength_adjoint_resident(address(s), address(gy), address(gm), batch, frames,
                                             bins, prec, device,
                                             reinterpret_cast<stream_t>(stream));
      },
      R"(onset_strength_adjoint_resident(m_ptr, gy_ptr, gm_ptr, batch, frames, bins, prec, device, stream)

Gradient of a function of onset strengths with respect to the spectrogram; queues the work on `stream` and returns.

m_ptr, gy_ptr, gm_ptr: addresses on `device` of the (batch, frames, bins) spectrogram that onset_strength_resident was
given, the (batch, frames) gradients of its results, and (batch, frames, bins) gradients to be written, all row-major.
A bin that rises from frame t - 1 to frame t takes gy[t] / bins in frame t and -gy[t] / bins in frame t - 1; one that
stays as it is passes nothing.
prec: 1 float, 2 double; half storage is refused. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no frames. Raises ValueError for half and for sizes out of bounds,
RuntimeError when HIP fails.
Source: the derivative of onset_strength_staged's formula.)");
}

void bind_tonnetz_adjoint(py::module_& m) {
  m.def(
      "tonnetz_adjoint_resident",
      [](uintptr_t c, uintptr_t gy, uintptr_t gc, int64_t rows, int prec, int device,
         uintptr_t stream) {
        ops::tonnetz_adjoint_resident(address(c), address(gy), address(gc), rows, prec, device,
                                      reinterpret_cast<stream_t>(stream));
      },
      R"(tonnetz_adjoint_resident(c_ptr, gy_ptr, gc_ptr, rows, prec, device, stream)

Gradient of a function of tonal coordinates with respect to the chroma; queues the work on `stream` and returns.

c_ptr, gy_ptr, gc_ptr: addresses on `device` of the (rows, 12) chroma that tonnetz_resident was given, the (rows, 6)
gradients of its results, and (rows, 12) gradients to be written, all row-major.
A row whose sum is not positive has the gradient 0, as it has the coordinates 0.
prec: 1 float, 2 double; half storage is refused. stream: raw handle, 0 the null stream.
Pointers are not checked. Nothing is queued for no rows. Raises ValueError for half and for rows out of bounds,
RuntimeError when HIP fails.
Source: the derivative of tonnetz_staged's formula.)");
}

}  // namespace

void bind_feature_gradients(py::module_& m) {
  bind_spectral_adjoint(m);
  bind_contrast_adjoint(m);
  bind_db_adjoint(m);
  bind_frame_adjoints(m);
  bind_tonnetz_adjoint(m);
}

}  // namespace kevra::bindings
