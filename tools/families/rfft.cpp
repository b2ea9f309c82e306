#include "codegen/kernels/rfft.h"

#include <stdexcept>
#include <string>

#include "cuda_like/ops/rfft_route.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;
namespace ops = kevra::ops;

ops::RfftShape shape_of(const Values& values) {
  const int prec = values.at("prec");
  return {.n = values.at("n"),
          .wide = prec == codegen::kDouble,
          .inverse = values.at("inverse") != 0,
          .half = prec == codegen::kHalf};
}

// The kernel of a route; without one for the routes of several launches.
Kernel kernel_of(const ops::RfftShape& shape, const codegen::ShapeHint& hint) {
  const ops::RfftRoute route = ops::route_rfft(shape, hint, kSharedLimit);
  const auto made = [](const auto& kernel, std::string source) {
    return Kernel{kernel.data.kernel_name(), kernel.key(), kernel.block(),
                  kernel.shared_bytes(),     false,        std::move(source)};
  };
  switch (route.form) {
    case ops::RfftForm::kTiny: {
      const codegen::TinyRealFftKernel kernel{shape.rows()};
      return {kernel.kName,  kernel.key(),
              kernel.kBlock, 0,
              false,         codegen::tiny_rfft_source(kernel, hip)};
    }
    case ops::RfftForm::kRegister:
      return made(route.registers, codegen::register_rfft_source(route.registers, hip));
    case ops::RfftForm::kShared:
      return made(route.shared, codegen::real_fft_source(route.shared, hip));
    default:
      throw std::invalid_argument("n = " + std::to_string(shape.n) + " takes the " +
                                  ops::rfft_form_name(route.form) +
                                  " route; this family is the kernels of one launch");
  }
}

// The kernel that the transform's route arrives at under the values as a hint.
Kernel make_rfft(const Values& values) {
  const ops::RfftShape shape = shape_of(values);
  Kernel kernel = kernel_of(shape, {.ept = values.at("ept"),
                                    .fpb = values.at("rows"),
                                    .tpf = values.at("tpf"),
                                    .core = values.at("core"),
                                    .var = values.at("radix25") + 4 * values.at("padded")});
  kernel.default_route = kernel_of(shape, {}).key == kernel.key;
  return kernel;
}

// What users transform, even and odd, and what reaches every schedule; at the end sizes with a
// prime stage.
constexpr int kRfftSizes[] = {
    1,    2,    3,    4,     6,    8,    9,    10,   12,   15,   16,   20,   24,   25,   27,
    32,   45,   48,   60,    64,   75,   80,   81,   96,   100,  120,  121,  125,  128,  144,
    160,  192,  200,  225,   240,  243,  250,  256,  300,  320,  343,  360,  375,  384,  400,
    441,  480,  500,  512,   600,  625,  640,  720,  729,  768,  800,  882,  900,  960,  1000,
    1001, 1024, 1125, 1200,  1250, 1280, 1323, 1440, 1536, 1600, 1920, 2000, 2048, 2187, 2205,
    2400, 2500, 2560, 3000,  3072, 3125, 3840, 4000, 4096, 4410, 4800, 5120, 6000, 6144, 7680,
    8000, 8192, 9600, 16384, 34,   51,   68,   544,  2256};

std::vector<Values> rfft_samples() {
  std::vector<Values> samples;
  for (int n : kRfftSizes) {
    for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
      for (int inverse : {0, 1}) {
        Values values{{"n", n}, {"prec", prec}, {"inverse", inverse}};
        const ops::RfftForm form = ops::route_rfft(shape_of(values), {}, kSharedLimit).form;
        if (form == ops::RfftForm::kBluestein || form == ops::RfftForm::kFourStep) continue;
        samples.push_back(std::move(values));
      }
    }
  }
  samples.push_back({{"n", 2048}, {"inverse", 1}, {"core", 2}});
  samples.push_back({{"n", 2048}, {"core", 1}});
  samples.push_back({{"n", 225}, {"core", 1}, {"padded", 1}});
  samples.push_back({{"n", 1200}, {"core", 1}, {"radix25", 1}});
  return samples;
}

}  // namespace

Family rfft_family() {
  return {"rfft",
          "real transform of rows, and back",
          {{"n", 2048, 1, 1 << 16, "size"},
           precision,
           {"inverse", 0, 0, 1, "1 for the inverse"},
           {"core", 0, 0, 2, "1 asks for the shared-memory kernel, 2 for the register kernel"},
           {"ept", 0, 0, 32, "complex values to a thread in registers; 0 chooses by n"},
           {"tpf", 0, 0, kLargestBlock, "threads to a transform in shared memory; 0 chooses by n"},
           {"rows", 0, 0, kLargestBlock, "transforms to a block; 0 chooses by n"},
           {"padded", 0, 0, 1, "1 leaves a free slot behind every 16 elements of shared memory"},
           {"radix25", 0, 0, 1, "1 allows radix 25 in shared memory"}},
          make_rfft,
          rfft_samples()};
}

}  // namespace kevra_tools
