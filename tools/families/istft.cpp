#include "codegen/kernels/istft.h"

#include <stdexcept>
#include <string>

#include "cuda_like/ops/istft_route.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;
namespace ops = kevra::ops;

// Which of the kernels of a call, in the order of their launches.
enum Step { kFrames = 0, kNormalize = 1, kGather = 2, kWindow = 3 };

Kernel gather_of(const codegen::IstftKernel& k, bool default_route) {
  const codegen::IstftGather gather{k.n_fft, k.compute, k.storage};
  return {gather.name(), gather.key(), gather.kBlock, 0, default_route, gather.source(hip)};
}

Kernel window_of(const codegen::IstftKernel& k, bool default_route) {
  const codegen::FrameWindow window{k.n_fft, k.compute};
  return {window.kName, window.key(), window.kBlock, 0, default_route, window.source(hip)};
}

// The kernel that the operation's route arrives at under the values as a hint.
Kernel make_istft(const Values& values) {
  const int prec = values.at("prec");
  const int step = values.at("step");
  const ops::IstftShape shape{.n_fft = values.at("n"),
                              .hop = values.at("hop"),
                              .wide = prec == codegen::kDouble,
                              .half = prec == codegen::kHalf,
                              .slots = values.at("deterministic") != 0};
  const codegen::ShapeHint hint{.tpf = values.at("tpf")};
  const ops::IstftRoute route = ops::route_istft(shape, hint, kSharedLimit);
  const codegen::IstftKernel& k = route.kernel;
  if (step == kGather) return gather_of(k, route.staged);
  if (step == kWindow) return window_of(k, route.staged);
  if (step == kNormalize) {
    return {k.kNormalizeName,
            k.normalize_key(),
            k.kNormalizeBlock,
            0,
            true,
            istft_normalize_source(k, hip)};
  }
  if (route.staged) {
    throw std::invalid_argument("n = " + std::to_string(shape.n_fft) +
                                " takes the staged route, which has no step 0");
  }
  return {k.kFramesName,
          k.frames_key(),
          k.tpf,
          k.shared_bytes(),
          ops::route_istft(shape, {}, kSharedLimit).kernel.frames_key() == k.frames_key(),
          istft_frames_source(k, hip)};
}

// Frames of speech and of music, both forms of the transform, every radix and prime stages.
std::vector<Values> istft_samples() {
  std::vector<Values> samples;
  for (int n :
       {2,    3,    32,   100,  255,  256,  400,  441,  480,  512,  882,  1000,  1023,  1024,
        1128, 1920, 2048, 2205, 3125, 4096, 4410, 6000, 6561, 7875, 8192, 15360, 16016, 16384}) {
    for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
      for (int deterministic : {0, 1}) {
        const ops::IstftShape shape{n, 1, prec == codegen::kDouble, prec == codegen::kHalf,
                                    deterministic != 0};
        if (ops::route_istft(shape, {}, kSharedLimit).staged) continue;
        samples.push_back(
            {{"n", n}, {"hop", (n + 3) / 4}, {"prec", prec}, {"deterministic", deterministic}});
      }
    }
  }
  for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
    for (int deterministic : {0, 1}) {
      samples.push_back({{"step", kNormalize}, {"prec", prec}, {"deterministic", deterministic}});
    }
    for (int n : {20011, 32768}) {
      samples.push_back({{"step", kGather}, {"n", n}, {"prec", prec}});
      if (prec != codegen::kHalf) samples.push_back({{"step", kWindow}, {"n", n}, {"prec", prec}});
    }
  }
  samples.push_back({{"n", 2048}, {"tpf", 128}});
  return samples;
}

}  // namespace

Family istft_family() {
  return {"istft",
          "spectrograms back to signals",
          {{"n", 2048, 1, 1 << 20, "n_fft"},
           {"hop", 512, 1, 1 << 20, "samples from frame to frame"},
           precision,
           {"deterministic", 0, 0, 1, "1 keeps every frame for itself, 0 adds by atomics"},
           {"tpf", 0, 0, kLargestBlock, "threads to a block of step 0; 0 chooses by n"},
           {"step", kFrames, kFrames, kWindow,
            "0 inverse transforms, 1 the division; staged: 2 gathering of bins, 3 windowing"}},
          make_istft,
          istft_samples()};
}

}  // namespace kevra_tools
