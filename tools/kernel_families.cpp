#include "kernel_families.h"

#include <algorithm>
#include <stdexcept>

#include "codegen/backend.h"
#include "codegen/kernels/fft.h"
#include "codegen/kernels/rms.h"
#include "codegen/precision.h"
#include "codegen/sizes.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

constexpr int kLargestBlock = 1024;  // threads

const codegen::HipBackend hip;

const Parameter precision{"prec", codegen::kFloat, codegen::kHalf, codegen::kDouble,
                          "0 half storage, 1 float, 2 double"};

Kernel make_rms(const Values& values) {
  const codegen::RmsKernel kernel{values.at("prec")};
  return {codegen::RmsKernel::kName, kernel.key(), codegen::RmsKernel::kBlock,
          kernel.shared_bytes(), kernel.source(hip)};
}

Kernel make_fft(const Values& values) {
  const int n = values.at("n");
  const int prec = values.at("prec");
  codegen::ComplexFftKernel kernel{.n = n,
                                   .compute = codegen::compute_precision(prec),
                                   .storage = codegen::storage_precision(prec),
                                   .inverse = values.at("inverse") != 0,
                                   .tpf = values.at("tpf"),
                                   .rows_per_block = values.at("rows"),
                                   .padded = values.at("padded") != 0,
                                   .radix25 = values.at("radix25") != 0};
  // The defaults of the transform's route, its wish for full blocks of odd sizes apart.
  if (kernel.tpf == 0) kernel.tpf = std::clamp(n / 8, 16, 256);
  if (kernel.rows_per_block == 0) {
    kernel.rows_per_block = codegen::is_power_of_two(n) ? std::max(64 / kernel.tpf, 1) : 1;
  }
  if (kernel.block() > kLargestBlock) {
    throw std::invalid_argument("tpf x rows is " + std::to_string(kernel.block()) +
                                ", must be at most " + std::to_string(kLargestBlock));
  }
  return {codegen::ComplexFftKernel::kName, kernel.key(), kernel.block(), kernel.shared_bytes(),
          codegen::complex_fft_source(kernel, hip)};
}

// Sizes that reach each radix, each load form, one row and several to a block.
std::vector<Values> fft_samples() {
  std::vector<Values> samples;
  for (int n : {2, 7, 60, 64, 100, 143, 720, 1024, 2187, 4096}) {
    for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
      for (int inverse : {0, 1})
        samples.push_back({{"n", n}, {"prec", prec}, {"inverse", inverse}});
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
