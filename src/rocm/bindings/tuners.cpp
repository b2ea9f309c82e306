#include <pybind11/stl.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cuda_like/tune/tune.h"
#include "rocm/bindings/banks.h"
#include "rocm/bindings/bindings.h"
#include "rocm/bindings/cqt_design.h"
#include "rocm/bindings/windows.h"

namespace py = pybind11;
using namespace py::literals;

namespace kevra::bindings {
namespace {

devptr_t address(uintptr_t pointer) {
  return reinterpret_cast<devptr_t>(pointer);
}

py::dict told(const tune::Winner& winner) {
  const ShapeHint& hint = winner.hint;
  return py::dict("ept"_a = hint.ept, "fpb"_a = hint.fpb, "tpf"_a = hint.tpf, "core"_a = hint.core,
                  "var"_a = hint.var, "ms"_a = winner.ms);
}

py::dict told(const std::optional<tune::Winner>& winner) {
  return winner ? told(*winner) : py::dict();
}

py::dict told(const std::optional<tune::BothWays>& winners) {
  if (!winners) return py::dict();
  return py::dict("forward"_a = told(winners->forward), "inverse"_a = told(winners->inverse));
}

using RowsTuner = std::optional<tune::BothWays> (*)(const tune::RowsToTune&,
                                                    const tune::RunCounts&);

// fft_autotune_gpu and rfft_autotune_gpu take the same arguments.
void bind_rows(py::module_& m, const char* name, RowsTuner tuner, const char* doc) {
  m.def(
      name,
      [tuner](uintptr_t x_ptr, int64_t batch, int64_t n, int prec, int device, int iters,
              int warmup) {
        return told(tuner({address(x_ptr), batch, n, prec, device}, {iters, warmup}));
      },
      "x_ptr"_a, "batch"_a, "n"_a, "prec"_a, "device"_a = 0, "iters"_a = 50, "warmup"_a = 10, doc);
}

void bind_transforms(py::module_& m) {
  bind_rows(
      m, "fft_autotune_gpu", &tune::tune_fft,
      R"(Runs the variants of fft_resident for one length and tells the fastest of each direction.

x_ptr: address on `device` of (batch, n) complex values, read only. n, prec: as in fft_resident.
Returns {"forward": winner, "inverse": winner}, each winner as in stft_autotune_gpu, for
set_shape_hint("fft", n, 0, inverse, bits, "complex", 0, device, ept, fpb, tpf, core, var), bits being 64, 32, 16, or 8
for prec 3; {} for lengths that no hint steers. The other arguments, the errors and the source are those of
stft_autotune_gpu.)");
  bind_rows(
      m, "rfft_autotune_gpu", &tune::tune_rfft,
      R"(Runs the variants of rfft_resident and irfft_resident for one length and tells the fastest of each.

x_ptr: address on `device` of (batch, n) real values, read only. n, prec: as in rfft_resident.
Returns {"forward": winner, "inverse": winner}, each winner as in stft_autotune_gpu, for
set_shape_hint("rfft", n, 0, inverse, bits, "complex", 0, device, ept, fpb, tpf, core, var), bits being 64, 32, or 16
for half storage; {} for lengths that no hint steers. The other arguments, the errors and the source are those of
stft_autotune_gpu.)");
}

void bind_stft_tuner(py::module_& m) {
  m.def(
      "stft_autotune_gpu",
      [](uintptr_t x_ptr, int64_t batch, int64_t length, int64_t n_fft, int64_t hop, bool center,
         const std::string& output, double eps, const py::object& window, int prec, int device,
         int iters, int warmup) {
        const WindowArgument argument(window);
        return told(tune::tune_stft({.y = address(x_ptr),
                                     .out = nullptr,
                                     .batch = batch,
                                     .length = length,
                                     .n_fft = n_fft,
                                     .hop = hop,
                                     .center = center,
                                     .form = output_form(output),
                                     .eps = eps,
                                     .window = argument.spec,
                                     .device = device},
                                    prec, {iters, warmup}));
      },
      "x_ptr"_a, "batch"_a, "length"_a, "n_fft"_a, "hop"_a, "center"_a, "output"_a, "eps"_a,
      "window"_a, "prec"_a, "device"_a = 0, "iters"_a = 50, "warmup"_a = 10,
      R"(Runs the variants of stft_resident for one exact shape and tells the fastest.

x_ptr: address on `device` of (batch, length) samples, read only. n_fft, hop, center, output, eps, window, prec: as in
stft_resident.
warmup: runs of a variant's first measurement, at least one; iters: the most of its second, which takes about 25 ms.
Before each run the device's cache is overwritten. What counts is the fastest run. The first call in a process takes
device memory as large as that cache, and keeps it.
Returns the winner {"ept", "fpb", "tpf", "core", "var", "ms"}, milliseconds and what set_shape_hint takes; five zeros
where nothing beats the default; {} for shapes that no hint steers. Stores nothing, sets no hint, waits for the device;
other work on it falsifies the times.
Raises ValueError for what stft_resident refuses and for iters or warmup below 0 or above 100000, RuntimeError when HIP
fails.
Source: M. Frigo and S. G. Johnson, The design and implementation of FFTW3, Proc. IEEE 93, 2005 (choosing by
measurement).)");
}

void bind_istft_tuner(py::module_& m) {
  m.def(
      "istft_autotune_gpu",
      [](uintptr_t z_ptr, int64_t batch, int64_t bins, int64_t frames, int64_t stride_batch,
         int64_t stride_bin, int64_t stride_frame, int64_t n_fft, int64_t hop, bool center,
         const py::object& window, int prec, int device, int iters, int warmup) {
        const WindowArgument argument(window);
        return told(tune::tune_istft({.z = address(z_ptr),
                                      .y = nullptr,
                                      .batch = batch,
                                      .bins = bins,
                                      .frames = frames,
                                      .stride_batch = stride_batch,
                                      .stride_bin = stride_bin,
                                      .stride_frame = stride_frame,
                                      .n_fft = n_fft,
                                      .hop = hop,
                                      .center = center,
                                      .window = argument.spec,
                                      .device = device},
                                     prec, {iters, warmup}));
      },
      "z_ptr"_a, "batch"_a, "bins"_a, "frames"_a, "stride_batch"_a, "stride_bin"_a,
      "stride_frame"_a, "n_fft"_a, "hop"_a, "center"_a, "window"_a, "prec"_a, "device"_a = 0,
      "iters"_a = 50, "warmup"_a = 10,
      R"(Runs the variants of istft_resident for one exact shape and tells the fastest.

z_ptr and the strides, which count complex values: as in istft_resident; the spectra are read only. n_fft, hop, center,
window, prec: as there.
Returns a winner as stft_autotune_gpu does, {} for frames that no hint steers. The other arguments, the errors and the
source are those of stft_autotune_gpu.)");
}

void bind_mel_tuner(py::module_& m) {
  m.def(
      "mel_autotune_gpu",
      [](uintptr_t x_ptr, int64_t batch, int64_t length, const py::object& fb, int64_t n_fft,
         int64_t hop, bool center, double power, const std::string& output, double eps,
         const py::object& window, int prec, int device, int iters, int warmup) {
        const WindowArgument shape(window);
        const BankArgument argument(fb);
        return told(tune::tune_mel({.y = address(x_ptr),
                                    .mel = nullptr,
                                    .batch = batch,
                                    .length = length,
                                    .options = {argument.bank, n_fft, hop, center, power,
                                                output_form(output), eps, shape.spec},
                                    .device = device},
                                   prec, {iters, warmup}));
      },
      "x_ptr"_a, "batch"_a, "length"_a, "fb"_a, "n_fft"_a, "hop"_a, "center"_a, "power"_a,
      "output"_a, "eps"_a, "window"_a, "prec"_a, "device"_a = 0, "iters"_a = 50, "warmup"_a = 10,
      R"(Runs the variants of mel_resident for one exact shape and tells the fastest.

x_ptr: address on `device` of (batch, length) samples, read only. fb, n_fft, hop, center, power, output, eps, window,
prec: as in mel_resident; fb is a host array.
Returns a winner as stft_autotune_gpu does, to be set with extra = n_mels; {} for frames that no hint steers. The other
arguments, the errors and the source are those of stft_autotune_gpu.)");
}

void bind_cqt_tuner(py::module_& m) {
  m.def(
      "cqt_autotune_gpu",
      [](uintptr_t x_ptr, int64_t batch, int64_t length, int64_t n_levels, const py::list& octaves,
         const py::object& taps, const std::string& plan_key, int64_t n_bins, int64_t frames,
         const std::string& output, double eps, int prec, int device, int iters, int warmup) {
        const DesignArgument argument("cqt", n_levels, octaves, taps, plan_key, n_bins, frames);
        const tune::Winner winner = tune::tune_cqt({.x = address(x_ptr),
                                                    .out = nullptr,
                                                    .batch = batch,
                                                    .length = length,
                                                    .design = argument.design,
                                                    .form = output_form(output),
                                                    .eps = eps,
                                                    .device = device},
                                                   prec, {iters, warmup});
        std::vector<std::pair<int64_t, int64_t>> shapes;
        for (const ops::CqtRecord& record : argument.design.octaves) {
          shapes.emplace_back(record.n_fft, record.hop);
        }
        return py::dict("core"_a = winner.hint.core, "ms"_a = winner.ms, "octaves"_a = shapes);
      },
      "x_ptr"_a, "batch"_a, "length"_a, "n_levels"_a, "octaves"_a, "taps"_a, "plan_key"_a,
      "n_bins"_a, "frames"_a, "output"_a, "eps"_a, "prec"_a, "device"_a = 0, "iters"_a = 20,
      "warmup"_a = 5,
      R"(Runs cqt_resident fused and through device memory for one design and signal length and tells the faster.

x_ptr: address on `device` of (batch, length) samples, read only. n_levels, octaves, taps, plan_key, n_bins, frames,
output, eps, prec: as in cqt_resident.
Returns {"core", "ms", "octaves"}: core 0 for the fused path or 1 for the other, milliseconds, and the (n_fft, hop) of
every octave in order, for one set_shape_hint("cqt", n_fft, hop, False, bits, output, 0, device, 0, 0, 0, core) each;
bits is 64 for prec 2, else 32. The other arguments, the errors and the source are those of stft_autotune_gpu.)");
}

}  // namespace

void bind_tuners(py::module_& m) {
  bind_stft_tuner(m);
  bind_istft_tuner(m);
  bind_mel_tuner(m);
  bind_transforms(m);
  bind_cqt_tuner(m);
}

}  // namespace kevra::bindings
