#include "codegen/kernels/spectral.h"

#include <algorithm>
#include <bit>
#include <stdexcept>
#include <string>

#include "codegen/kernels/contrast.h"
#include "codegen/kernels/spectrum_output.h"
#include "codegen/kernels/stft.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

codegen::StftKernel routed(const Values& values, const codegen::FrameStatistic& statistic,
                           const codegen::ShapeHint& hint) {
  const int n_fft = values.at("n_fft");
  const codegen::StftRequest request{
      .prec = values.at("prec"),
      .n_fft = n_fft,
      .hop = values.at("hop") != 0 ? values.at("hop") : std::max(n_fft / 4, 1),
      .pad = values.at("center") != 0 ? n_fft / 2 : 0,
      .length = 0,  // shapes no text, as the number of frames
      .frames = 0,
      .form = codegen::kMagnitudeForm,
      .eps = 1e-10,
      .statistic = statistic};
  codegen::StftKernel kernel{route_stft(request, hint, kSharedLimit)};
  kernel.config.win_kind = 0;
  return kernel;
}

// The kernel that the route arrives at under the values as a hint.
Kernel frame_kernel(const Values& values, const codegen::FrameStatistic& statistic) {
  const int n_fft = values.at("n_fft");
  const codegen::StftKernel kernel =
      routed(values, statistic,
             {.fpb = values.at("fpb"), .tpf = values.at("tpf"), .core = values.at("core")});
  if (!std::has_single_bit(static_cast<unsigned>(n_fft)) ||
      kernel.config.core == codegen::StftCore::kFourStep) {
    throw std::invalid_argument("n_fft = " + std::to_string(n_fft) +
                                " goes through device memory; this family is the fused kernel");
  }
  return {codegen::StftKernel::kName,
          kernel.key(),
          kernel.block(),
          kernel.shared_bytes(),
          routed(values, statistic, {}).key() == kernel.key(),
          codegen::stft_source(kernel, hip)};
}

int padded(const Values& values) {
  return static_cast<int>(std::bit_ceil(static_cast<unsigned>(values.at("widest"))));
}

Kernel make_frame_spectral(const Values& values) {
  return frame_kernel(values, {.stat = values.at("stat")});
}

Kernel make_frame_contrast(const Values& values) {
  return frame_kernel(
      values,
      {.stat = codegen::kContrast, .n_bands = values.at("n_bands"), .band_pad = padded(values)});
}

Kernel make_spectral(const Values& values) {
  const codegen::SpectralKernel kernel{values.at("prec"), values.at("stat")};
  return {kernel.kName, kernel.key(), kernel.kBlock, kernel.kSharedBytes, true, kernel.source(hip)};
}

Kernel make_contrast(const Values& values) {
  const int64_t pad = padded(values);
  const auto kernel = codegen::ContrastKernel::chosen(values.at("prec"), pad, kSharedLimit);
  return {kernel.name(), kernel.key(),
          kernel.kBlock, static_cast<size_t>(kernel.shared_bytes(pad)),
          true,          kernel.source(hip)};
}

const Parameter stat{"stat", codegen::kCentroid, codegen::kCentroid, codegen::kRolloff,
                     "0 centroid, 1 bandwidth, 2 flatness, 3 rolloff"};
const Parameter widest{"widest", 512, 2, 1 << 20, "bins of the widest band"};

std::vector<Parameter> frame_parameters(std::vector<Parameter> own) {
  own.insert(own.begin(),
             {{"n_fft", 1024, 2, 1 << 16, "frame length in samples, a power of two"},
              {"hop", 0, 0, 1 << 16, "frame step in samples; 0 is a quarter of the frame"},
              {"center", 1, 0, 1, "1 reflects the signal by half a frame at both ends"},
              {"prec", codegen::kFloat, codegen::kFloat, codegen::kDouble, "1 float, 2 double"},
              {"fpb", 0, 0, kLargestBlock, "frames to a block; 0 chooses by n_fft"},
              {"tpf", 0, 0, kLargestBlock, "threads to a frame; 0 chooses by n_fft"},
              {"core", 0, 0, 3, "1 shared memory, 3 registers of 16; 0 chooses by n_fft"}});
  return own;
}

// Both precisions in the usual frames.
std::vector<Values> frame_samples(std::vector<Values> samples) {
  for (int n_fft : {512, 2048}) {
    for (int prec : {codegen::kFloat, codegen::kDouble}) {
      samples.push_back({{"n_fft", n_fft}, {"prec", prec}});
    }
  }
  return samples;
}

}  // namespace

Family frame_spectral_family() {
  return {"frame_spectral", "a statistic of the spectra of a signal's frames",
          frame_parameters({stat}), make_frame_spectral,
          frame_samples({{{"stat", 1}}, {{"stat", 2}}, {{"stat", 3}}})};
}

Family frame_contrast_family() {
  return {"frame_contrast", "contrast of bands of the spectra of a signal's frames",
          frame_parameters({{"n_bands", 7, 1, 1 << 16, "bands"},
                            {"widest", 128, 2, 1 << 15, "bins of the widest band"}}),
          make_frame_contrast, frame_samples({{{"n_fft", 4096}}})};
}

Family spectral_family() {
  std::vector<Values> samples;
  for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
    for (int s = codegen::kCentroid; s <= codegen::kRolloff; ++s) {
      samples.push_back({{"prec", prec}, {"stat", s}});
    }
  }
  return {
      "spectral", "a statistic of rows of magnitudes", {precision, stat}, make_spectral, samples};
}

Family contrast_family() {
  std::vector<Values> samples;
  for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
    for (int width : {512, 1 << 20}) samples.push_back({{"prec", prec}, {"widest", width}});
  }
  return {"contrast",
          "contrast of bands of rows of magnitudes",
          {precision, widest},
          make_contrast,
          samples};
}

}  // namespace kevra_tools
