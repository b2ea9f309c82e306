#include "codegen/kernels/mel.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "codegen/sizes.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

constexpr int kPacked = 3;  // precision code of half arithmetic

codegen::MelKernel routed(const Values& values, const codegen::ShapeHint& hint) {
  const int prec = values.at("prec");
  const int n_fft = values.at("n_fft");
  const codegen::StftRequest request{
      .prec = prec == kPacked ? codegen::kHalf : codegen::compute_precision(prec),
      .n_fft = n_fft,
      .hop = values.at("hop") != 0 ? values.at("hop") : std::max(n_fft / 4, 1),
      .pad = values.at("center") != 0 ? n_fft / 2 : 0,
      .length = 0,  // shapes no text, as the number of frames
      .frames = 0,
      .form = values.at("form"),
      .eps = 1e-10};
  codegen::MelKernel kernel{
      route_mel(request, {values.at("n_mels"), values.at("power"), values.at("n_cepstra")}, hint,
                kSharedLimit)};
  kernel.config.in_prec = kernel.config.out_prec =
      prec == kPacked ? codegen::kHalf : codegen::storage_precision(prec);
  kernel.config.win_kind = 0;
  return kernel;
}

// The kernel that the route arrives at under the values as a hint.
Kernel make_mel(const Values& values) {
  const int prec = values.at("prec");
  if (values.at("n_cepstra") > 0 &&
      !(codegen::is_power_of_two(values.at("n_fft")) && values.at("form") == 3 &&
        (prec == codegen::kFloat || prec == codegen::kDouble))) {
    throw std::invalid_argument(
        "n_cepstra wants an n_fft that is a power of two, form 3 and prec 1 or 2");
  }
  const codegen::MelKernel kernel =
      routed(values, {.fpb = values.at("fpb"), .tpf = values.at("tpf"), .core = values.at("core")});
  if (kernel.config.core == codegen::StftCore::kFourStep) {
    throw std::invalid_argument("n_fft = " + std::to_string(kernel.config.n_fft) +
                                " goes through device memory; this family is the fused kernel");
  }
  return {codegen::MelKernel::kName,
          kernel.key(),
          kernel.block(),
          kernel.shared_bytes(),
          routed(values, {}).key() == kernel.key(),
          codegen::mel_source(kernel, hip)};
}

std::vector<Values> mel_samples() {
  std::vector<Values> samples;
  for (int n_fft : {256, 512, 1024, 2048, 4096, 400, 640, 960, 1200}) {
    for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
      samples.push_back({{"n_fft", n_fft}, {"prec", prec}});
    }
  }
  for (int form : {0, 1}) samples.push_back({{"form", form}});
  for (int n_fft : {400, 512, 2048}) samples.push_back({{"n_fft", n_fft}, {"power", 1}});
  for (int n_fft : {512, 2048}) samples.push_back({{"n_fft", n_fft}, {"prec", kPacked}});
  samples.push_back({{"n_fft", 441}, {"hop", 147}});
  samples.push_back({{"n_fft", 441}, {"hop", 147}, {"prec", codegen::kDouble}});
  samples.push_back({{"n_fft", 400}, {"hop", 160}, {"n_mels", 80}});
  samples.push_back({{"n_fft", 2048}, {"prec", codegen::kDouble}, {"core", 3}});
  for (int n_fft : {512, 2048}) samples.push_back({{"n_fft", n_fft}, {"n_cepstra", 20}});
  samples.push_back({{"n_fft", 1024}, {"n_cepstra", 13}, {"prec", codegen::kDouble}});
  return samples;
}

// Bands of spectra in device memory.
Kernel make_mel_bands(const Values& values) {
  const int prec = values.at("prec");
  const codegen::BandKernel kernel{.bins = values.at("bins"),
                                   .n_mels = values.at("n_mels"),
                                   .compute = codegen::compute_precision(prec),
                                   .storage = codegen::storage_precision(prec),
                                   .form = values.at("form"),
                                   .eps = 1e-10};
  return {codegen::BandKernel::kName,       kernel.key(), kernel.kBlock, 0, true,
          codegen::band_source(kernel, hip)};
}

const Parameter bands{"n_mels", 128, 1, 1 << 16, "bands"};
const Parameter form{"form", 3, 0, 3, "0 and 2 the band, 1 its square root, 3 decibels"};

}  // namespace

Family mel_family() {
  return {"mel",
          "bands of the spectra of a signal's frames",
          {{"n_fft", 1024, 2, 1 << 16, "frame length in samples"},
           {"hop", 0, 0, 1 << 16, "frame step in samples; 0 is a quarter of the frame"},
           {"center", 1, 0, 1, "1 reflects the signal by half a frame at both ends"},
           bands,
           {"n_cepstra", 0, 0, 1 << 16, "coefficients of the bands' cepstra; 0 stores the bands"},
           {"power", 2, 1, 2, "the bank is applied to magnitudes (1) or powers (2)"},
           {"prec", codegen::kFloat, codegen::kHalf, kPacked,
            "0 half storage, 1 float, 2 double, 3 half storage and arithmetic"},
           form,
           {"fpb", 0, 0, kLargestBlock, "frames to a block; 0 chooses by n_fft"},
           {"tpf", 0, 0, kLargestBlock, "threads to a frame; 0 chooses by n_fft"},
           {"core", 0, 0, 3, "1 shared memory, 3 registers of 16; 0 chooses by n_fft"}},
          make_mel,
          mel_samples()};
}

Family mel_bands_family() {
  return {"mel_bands",
          "bands of spectra in device memory",
          {{"bins", 10001, 1, 1 << 16, "values of a spectrum"}, bands, precision, form},
          make_mel_bands,
          {{{"prec", codegen::kHalf}},
           {{"prec", codegen::kFloat}},
           {{"prec", codegen::kDouble}},
           {{"form", 1}}}};
}

}  // namespace kevra_tools
