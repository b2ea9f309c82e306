#include "codegen/kernels/fft.h"

#include <stdexcept>
#include <string>

#include "codegen/sizes.h"
#include "cuda_like/ops/fft_route.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;
namespace ops = kevra::ops;

constexpr int kPacked = 3;  // precision code of two half rows at once

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

// The register kernel that the transform's route arrives at under the values as a hint.
Kernel make_fft_register(const Values& values) {
  const int prec = values.at("prec");
  const ops::FftShape shape{.n = values.at("n"),
                            .wide = prec == codegen::kDouble,
                            .inverse = values.at("inverse") != 0,
                            .half = prec == codegen::kHalf || prec == kPacked,
                            .pair = prec == kPacked};
  const codegen::ShapeHint hint{.ept = values.at("ept"),
                                .fpb = values.at("rows"),
                                .core = values.at("core"),
                                .var = 8 * values.at("flip") + 2 * values.at("half_exchange")};
  const ops::FftRoute route = ops::route_fft(shape, hint, kSharedLimit);
  if (route.registers.rows == 0) {
    throw std::invalid_argument("n = " + std::to_string(shape.n) + " takes the " +
                                ops::fft_form_name(route.form) +
                                " route; core=2 asks for a register kernel");
  }
  const codegen::RegisterFftKernel kernel = ops::register_kernel(shape, route);
  const ops::FftRoute unasked = ops::route_fft(shape, {}, kSharedLimit);
  return {codegen::kFftKernelName,
          kernel.key(),
          kernel.block(),
          route.registers.shared_bytes,
          unasked.registers.rows != 0 && ops::register_kernel(shape, unasked).key() == kernel.key(),
          codegen::register_fft_source(kernel, hip)};
}

std::vector<Values> fft_register_samples() {
  std::vector<Values> samples;
  for (int n : {64, 96, 121, 169, 256, 343, 384, 512, 625, 1000, 1024, 1331, 2048, 4096, 8192}) {
    for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble, kPacked}) {
      for (int inverse : {0, 1}) {
        const ops::FftShape shape{.n = n,
                                  .wide = prec == codegen::kDouble,
                                  .inverse = inverse != 0,
                                  .half = prec == codegen::kHalf || prec == kPacked,
                                  .pair = prec == kPacked};
        const ops::FftRoute route = ops::route_fft(shape, {}, kSharedLimit);
        // Packed data has a kernel of its own in the pair form alone.
        if (route.registers.rows == 0) continue;
        if (prec == kPacked && route.form != ops::FftForm::kPair) continue;
        samples.push_back({{"n", n}, {"prec", prec}, {"inverse", inverse}});
      }
    }
  }
  samples.push_back({{"n", 1024}, {"core", 2}});
  samples.push_back({{"n", 512}, {"flip", 1}});
  samples.push_back({{"n", 1024}, {"prec", codegen::kHalf}, {"half_exchange", 1}});
  return samples;
}

// What users transform, up to what one row of float fits, and what reaches every radix and load
// form; at the end sizes with a prime stage. Sizes with a register route of their own are here too:
// a hint sends them to this kernel.
constexpr int kFftSizes[] = {
    2,    4,    7,    8,    12,   16,   24,   32,   36,   48,   60,   64,   72,   96,
    100,  120,  121,  128,  143,  144,  180,  192,  240,  250,  256,  300,  320,  336,
    343,  360,  384,  400,  441,  480,  500,  512,  600,  625,  640,  720,  729,  768,
    800,  882,  900,  960,  1000, 1024, 1050, 1200, 1280, 1331, 1440, 1536, 1600, 1920,
    2000, 2048, 2187, 2205, 2400, 2560, 3000, 3072, 3125, 3600, 3840, 4000, 4096, 4410,
    4800, 5000, 5120, 6000, 6144, 6561, 7200, 7680, 8000, 8192, 17,   34,   272,  1128};

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

Family fft_family() {
  return {"fft",
          "complex transform of rows in shared memory",
          {{"n", 1024, 1, 1 << 16, "size"},
           precision,
           {"inverse", 0, 0, 1, "1 for the inverse"},
           {"tpf", 0, 0, kLargestBlock, "threads to a row; 0 chooses by n"},
           {"rows", 0, 0, kLargestBlock, "rows to a block; 0 chooses by n"},
           {"padded", 0, 0, 1, "1 leaves a free slot behind every 16 elements"},
           {"radix25", 0, 0, 1, "1 allows radix 25"}},
          make_fft,
          fft_samples()};
}

Family fft_register_family() {
  return {"fft_register",
          "complex transform of rows in registers",
          {{"n", 512, 1, 1 << 16, "size"},
           {"prec", codegen::kFloat, codegen::kHalf, kPacked,
            "0 half storage, 1 float, 2 double, 3 packed rows of halves"},
           {"inverse", 0, 0, 1, "1 for the inverse"},
           {"ept", 0, 0, 32, "elements to a thread; 0 chooses by n"},
           {"rows", 0, 0, kLargestBlock, "rows to a block; 0 chooses by n"},
           {"core", 0, 0, 2, "2 asks for this kernel where another one is the default"},
           {"flip", 0, 0, 1, "1 takes the other exchange layout"},
           {"half_exchange", 0, 0, 1, "1 exchanges halves under half storage"}},
          make_fft_register,
          fft_register_samples()};
}

}  // namespace kevra_tools
