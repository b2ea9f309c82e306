#include "kernel_families.h"

#include <cstdint>
#include <stdexcept>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernels/fft.h"
#include "codegen/kernels/rms.h"
#include "codegen/precision.h"
#include "codegen/sizes.h"
#include "cuda_like/ops/fft_route.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;
namespace ops = kevra::ops;

constexpr int kLargestBlock = 1024;         // threads
constexpr int64_t kSharedLimit = 64 << 10;  // bytes a block may have on every AMD GPU so far

const codegen::HipBackend hip;

const Parameter precision{"prec", codegen::kFloat, codegen::kHalf, codegen::kDouble,
                          "0 half storage, 1 float, 2 double"};

Kernel make_rms(const Values& values) {
  const codegen::RmsKernel kernel{values.at("prec")};
  return {codegen::RmsKernel::kName, kernel.key(), codegen::RmsKernel::kBlock,
          kernel.shared_bytes(),     true,         kernel.source(hip)};
}

// The shared-memory kernel that the transform's route arrives at under the values as a hint.
Kernel make_fft(const Values& values) {
  const int prec = values.at("prec");
  const ops::FftShape shape{.n = values.at("n"),
                            .wide = prec == codegen::kDouble,
                            .inverse = values.at("inverse") != 0,
                            .half = prec == codegen::kHalf,
                            .pair = false};
  const codegen::ShapeHint hint{.fpb = values.at("rows"),
                                .tpf = values.at("tpf"),
                                .core = 1,
                                .var = values.at("radix25") + 4 * values.at("padded")};
  const ops::FftRoute route = ops::route_fft(shape, hint, kSharedLimit);
  if (route.form != ops::FftForm::kShared) {
    throw std::invalid_argument("n = " + std::to_string(shape.n) + " takes the " +
                                ops::fft_form_name(route.form) +
                                " route; this family is the shared-memory kernel");
  }
  const codegen::ComplexFftKernel& kernel = route.shared;
  const ops::FftRoute unasked = ops::route_fft(shape, {}, kSharedLimit);
  return {
      codegen::ComplexFftKernel::kName,
      kernel.key(),
      kernel.block(),
      kernel.shared_bytes(),
      unasked.form == ops::FftForm::kShared && unasked.shared.key() == kernel.key(),
      codegen::complex_fft_source(kernel, hip),
  };
}

// What users transform, up to what one row of float fits, and what reaches every radix and load
// form. Sizes with a register route of their own are here too: a hint sends them to this kernel.
constexpr int kFftSizes[] = {
    2,    4,    7,    8,    12,   16,   24,   32,   36,   48,   60,   64,   72,   96,   100,  120,
    121,  128,  143,  144,  180,  192,  240,  250,  256,  300,  320,  336,  343,  360,  384,  400,
    441,  480,  500,  512,  600,  625,  640,  720,  729,  768,  800,  882,  900,  960,  1000, 1024,
    1050, 1200, 1280, 1331, 1440, 1536, 1600, 1920, 2000, 2048, 2187, 2205, 2400, 2560, 3000, 3072,
    3125, 3600, 3840, 4000, 4096, 4410, 4800, 5000, 5120, 6000, 6144, 6561, 7200, 7680, 8000, 8192};

std::vector<Values> fft_samples() {
  std::vector<Values> samples;
  for (int n : kFftSizes) {
    for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
      if (codegen::fits_shared(n, codegen::compute_precision(prec), kSharedLimit)) {
        for (int inverse : {0, 1})
          samples.push_back({{"n", n}, {"prec", prec}, {"inverse", inverse}});
      }
    }
  }
  samples.push_back({{"n", 720}, {"padded", 1}});
  samples.push_back({{"n", 600}, {"radix25", 1}});
  return samples;
}

}  // namespace

const std::vector<Family>& families() {
  static const std::vector<Family> all{
      {"rms",
       "root-mean-square energy of frames",
       {precision},
       make_rms,
       {{{"prec", 0}}, {{"prec", 1}}, {{"prec", 2}}}},
      {"fft",
       "complex transform of rows in shared memory",
       {{"n", 1024, 1, 1 << 16, "size"},
        precision,
        {"inverse", 0, 0, 1, "1 for the inverse"},
        {"tpf", 0, 0, kLargestBlock, "threads to a row; 0 chooses by n"},
        {"rows", 0, 0, kLargestBlock, "rows to a block; 0 chooses by n"},
        {"padded", 0, 0, 1, "1 leaves a free slot behind every 16 elements"},
        {"radix25", 0, 0, 1, "1 allows radix 25"}},
       make_fft,
       fft_samples()},
  };
  return all;
}

}  // namespace kevra_tools
