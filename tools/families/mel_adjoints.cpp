#include <algorithm>
#include <stdexcept>
#include <string>

#include "codegen/kernels/cepstra_adjoint.h"
#include "codegen/kernels/mel_adjoint.h"
#include "codegen/sizes.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

const Parameter n_fft{"n_fft", 1024, 2, 1 << 16, "frame length in samples"};
const Parameter staged_n_fft{"n_fft", 20000, 2, 1 << 20, "frame length in samples, beyond a block"};
const Parameter n_mels{"n_mels", 128, 1, 1 << 16, "bands"};
const Parameter power{"power", 2, 1, 2, "the bank is applied to magnitudes (1) or powers (2)"};
const Parameter form{"form", 3, 0, 3, "0 and 2 the band, 1 its square root, 3 decibels"};
const Parameter crowded{"crowded", 0, 0, 1, "1 where a bin has more than two bands"};

codegen::BandRule rule_of(const Values& values) {
  return {.n_mels = values.at("n_mels"),
          .power = values.at("power"),
          .form = values.contains("form") ? values.at("form") : 0,
          .eps = 1e-10,
          .crowded = values.contains("crowded") && values.at("crowded") != 0};
}

Kernel make_frames(const Values& values) {
  const int points = values.at("n_fft");
  const int hop = values.at("hop") != 0 ? values.at("hop") : std::max(points / 4, 1);
  const codegen::MelAdjointKernel kernel{{.n_fft = points,
                                          .hop = hop,
                                          .pad = values.at("center") != 0 ? points / 2 : 0,
                                          .prec = values.at("prec"),
                                          .slots = values.at("slots") != 0},
                                         rule_of(values)};
  if (codegen::needs_bluestein(points) ||
      kernel.shared_bytes() > static_cast<size_t>(kSharedLimit)) {
    throw std::invalid_argument("n_fft = " + std::to_string(points) +
                                " does not fit a block; this family is the fused kernel");
  }
  return {kernel.kName,          kernel.key(), kernel.frame.threads(),
          kernel.shared_bytes(), true,         kernel.source(hip)};
}

template <class Record>
Kernel make_front(const Values& values) {
  const Record kernel{values.at("n_fft"), values.at("prec"), rule_of(values)};
  return {kernel.kName, kernel.key(), kernel.kBlock, 0, true, kernel.source(hip)};
}

Kernel make_cepstra(const Values& values) {
  const codegen::CepstraGradient kernel{values.at("prec"), values.at("n_mels"), values.at("n_out")};
  return {kernel.kName, kernel.key(), kernel.kBlock, 0, true, kernel.source(hip)};
}

template <class Record>
Kernel make_floor(const Values& values) {
  const Record kernel{values.at("prec")};
  return {kernel.kName,          kernel.key(), kernel.kBlock,
          kernel.shared_bytes(), true,         kernel.source(hip)};
}

const std::vector<Values> both_precisions{{{"prec", 1}}, {{"prec", 2}}};

std::vector<Values> frame_samples() {
  std::vector<Values> samples = both_precisions;
  for (int n : {256, 400, 2048}) samples.push_back({{"n_fft", n}});
  samples.push_back({{"n_fft", 400}, {"hop", 160}, {"n_mels", 80}, {"slots", 1}});
  samples.push_back({{"power", 1}, {"form", 1}});
  samples.push_back({{"form", 2}, {"crowded", 1}});
  return samples;
}

}  // namespace

Family mel_adjoint_family() {
  return {"mel_adjoint",
          "from the gradients of mel bands to those of the signal's frames",
          {n_fft,
           {"hop", 0, 0, 1 << 16, "frame step in samples; 0 is a quarter of the frame"},
           {"center", 1, 0, 1, "1 reflects the signal by half a frame at both ends"},
           n_mels,
           power,
           form,
           crowded,
           {"slots", 0, 0, 1, "1 gives every frame a place of its own, 0 adds them by atomics"},
           float_or_double},
          make_frames,
          frame_samples()};
}

Family mel_adjoint_sums_family() {
  return {"mel_adjoint_sums",
          "from the gradients of bands to those of their sums over spectra in device memory",
          {staged_n_fft, n_mels, power, form, float_or_double},
          make_front<codegen::MelGradientSums>,
          {{{"prec", 1}}, {{"prec", 2}}, {{"power", 1}, {"form", 1}}, {{"form", 2}}}};
}

Family mel_adjoint_pack_family() {
  return {"mel_adjoint_pack",
          "from the gradients of bands' sums to those of bins",
          {staged_n_fft, n_mels, power, crowded, float_or_double},
          make_front<codegen::MelGradientPack>,
          {{{"prec", 1}}, {{"prec", 2}}, {{"power", 1}}, {{"crowded", 1}}}};
}

Family cepstra_adjoint_family() {
  return {"cepstra_adjoint",
          "from the gradients of cepstra to those of bands",
          {n_mels, {"n_out", 20, 1, 1 << 16, "coefficients"}, float_or_double},
          make_cepstra,
          both_precisions};
}

Family cepstra_first_peak_family() {
  return {"cepstra_first_peak",
          "the loudest band of a signal and its first place",
          {float_or_double},
          make_floor<codegen::CepstraFirstPeak>,
          both_precisions};
}

Family cepstra_floor_sum_family() {
  return {"cepstra_floor_sum",
          "gradients of the bands that a floor raised, to the loudest",
          {float_or_double},
          make_floor<codegen::CepstraFloorSum>,
          both_precisions};
}

}  // namespace kevra_tools
