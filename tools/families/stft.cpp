#include "codegen/kernels/stft.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

constexpr int kPacked = 3;  // precision code of half arithmetic

codegen::StftKernel routed(const Values& values, const codegen::ShapeHint& hint) {
  const int prec = values.at("prec");
  const int storage = prec == kPacked ? codegen::kHalf : codegen::storage_precision(prec);
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
  codegen::StftKernel kernel{route_stft(request, hint, kSharedLimit)};
  kernel.config.in_prec = kernel.config.out_prec = storage;
  kernel.config.win_kind = 0;
  return kernel;
}

// The kernel that the route arrives at under the values as a hint.
Kernel make_stft(const Values& values) {
  const codegen::StftKernel kernel =
      routed(values, {.ept = values.at("ept"),
                      .fpb = values.at("fpb"),
                      .tpf = values.at("tpf"),
                      .core = values.at("core"),
                      .var = 16 * values.at("shift") + 4 * values.at("padded")});
  if (kernel.config.core == codegen::StftCore::kFourStep) {
    throw std::invalid_argument("n_fft = " + std::to_string(kernel.config.n_fft) +
                                " goes through device memory; this family is the fused kernel");
  }
  return {codegen::StftKernel::kName,
          kernel.key(),
          kernel.block(),
          kernel.shared_bytes(),
          routed(values, {}).key() == kernel.key(),
          codegen::stft_source(kernel, hip)};
}

// Speech and music in their usual frames, every core and every load.
std::vector<Values> stft_samples() {
  std::vector<Values> samples;
  for (int n_fft : {256, 512, 1024, 2048, 4096, 400, 640, 960, 1200}) {
    for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
      samples.push_back({{"n_fft", n_fft}, {"prec", prec}});
    }
  }
  for (int form : {1, 2, 3}) samples.push_back({{"form", form}});
  for (int n_fft : {512, 2048}) samples.push_back({{"n_fft", n_fft}, {"prec", kPacked}});
  samples.push_back({{"n_fft", 441}, {"hop", 147}});
  samples.push_back({{"n_fft", 1102}, {"hop", 441}});
  samples.push_back({{"n_fft", 2048}, {"prec", codegen::kDouble}, {"core", 3}});
  samples.push_back({{"n_fft", 1024}, {"shift", 5}});
  samples.push_back({{"n_fft", 400}, {"hop", 160}, {"padded", 1}});
  return samples;
}

}  // namespace

Family stft_family() {
  return {"stft",
          "short-time transform of a signal's frames",
          {{"n_fft", 1024, 2, 1 << 16, "frame length in samples"},
           {"hop", 0, 0, 1 << 16, "frame step in samples; 0 is a quarter of the frame"},
           {"center", 1, 0, 1, "1 reflects the signal by half a frame at both ends"},
           {"prec", codegen::kFloat, codegen::kHalf, kPacked,
            "0 half storage, 1 float, 2 double, 3 half storage and arithmetic"},
           {"form", 0, 0, 3, "0 complex, 1 magnitude, 2 power, 3 decibels"},
           {"ept", 0, 0, 64, "elements to a thread; 0 chooses by n_fft"},
           {"fpb", 0, 0, kLargestBlock, "frames to a block; 0 chooses by n_fft"},
           {"tpf", 0, 0, kLargestBlock, "threads to a frame; 0 chooses by n_fft"},
           {"core", 0, 0, 3, "1 shared memory, 3 registers of 16; 0 chooses by n_fft"},
           {"shift", 0, 0, 15, "a free slot behind every 2^shift points; 15 none, 0 chooses"},
           {"padded", 0, 0, 1, "1 leaves free slots where n_fft is no power of two"}},
          make_stft,
          stft_samples()};
}

}  // namespace kevra_tools
