#include "codegen/kernels/four_step.h"

#include <stdexcept>
#include <string>

#include "cuda_like/ops/four_step_route.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;
namespace ops = kevra::ops;

// The kernels of a transform of n complex values, or of the pairs of 2 n reals.
enum Places { kOrdinary, kKept, kTransposed };
enum Step { kFirst, kSecond, kRealSecond, kSplit, kPack };

Kernel column_pass(const codegen::ColumnPass& pass) {
  return {pass.kName,          pass.key(), pass.threads,
          pass.shared_bytes(), true,       column_pass_source(pass, hip)};
}

Kernel make_four_step(const Values& values) {
  const int n = values.at("n");
  const int prec = values.at("prec");
  const int compute = codegen::compute_precision(prec);
  const bool wide = prec == codegen::kDouble;
  const bool half = prec == codegen::kHalf;
  const int places = values.at("places");
  const bool kept = places == kKept;
  const bool inverse = kept || values.at("inverse") != 0;
  const Step step = static_cast<Step>(values.at("step"));
  const codegen::RealStep real{2 * n, compute, codegen::storage_precision(prec)};
  if (step == kSplit) {
    return {real.kSplit, real.split_key(), real.kBlock, 0, true, real_split_source(real, hip)};
  }
  if (step == kPack) {
    return {real.kPack, real.pack_key(), real.kBlock, 0, true, real_pack_source(real, hip)};
  }
  if (step == kRealSecond) {
    const auto route = ops::route_four_step_real(n, wide, half, kSharedLimit);
    if (!route) {
      throw std::invalid_argument("n = " + std::to_string(n) +
                                  " has no split with an even n2; step=3 shows the kernel that "
                                  "real rows of it take");
    }
    return {route->second.kName,
            route->second.key(),
            route->second.threads,
            route->second.shared_bytes(),
            true,
            real_pass_source(route->second, hip)};
  }
  // Kept rows come from the pack step at full precision.
  const auto between = kept ? ops::Between::kKept : ops::Between::kLines;
  const auto route =
      places == kTransposed
          ? ops::route_transposed(n, wide, inverse, kSharedLimit)
          : ops::route_four_step({n, wide, inverse, half && !kept, half}, kSharedLimit, between);
  if (!route) {
    throw std::invalid_argument("n = " + std::to_string(n) +
                                " has no split whose columns fit into shared memory; choose an n "
                                "of small factors, not above 16777216");
  }
  return column_pass(step == kFirst ? route->first : route->second);
}

std::vector<Values> four_step_samples() {
  std::vector<Values> samples;
  for (int n : {10000, 16384, 19683, 32768, 44100, 48000, 65536, 131072, 262144, 524288, 1048576}) {
    for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
      for (int step : {kFirst, kSecond}) {
        for (int inverse : {0, 1}) {
          samples.push_back({{"n", n}, {"prec", prec}, {"step", step}, {"inverse", inverse}});
        }
        samples.push_back({{"n", n}, {"prec", prec}, {"step", step}, {"places", kKept}});
        if (prec == codegen::kHalf || n % 4 != 0) continue;  // no convolution pads to such an n
        for (int inverse : {0, 1}) {
          samples.push_back({{"n", n},
                             {"prec", prec},
                             {"step", step},
                             {"inverse", inverse},
                             {"places", kTransposed}});
        }
      }
      const bool wide = prec == codegen::kDouble;
      const bool half = prec == codegen::kHalf;
      const bool fused = ops::route_four_step_real(n, wide, half, kSharedLimit).has_value();
      samples.push_back({{"n", n}, {"prec", prec}, {"step", fused ? kRealSecond : kSplit}});
      samples.push_back({{"n", n}, {"prec", prec}, {"step", kPack}});
    }
  }
  return samples;
}

}  // namespace

Family four_step_family() {
  return {"four_step",
          "transforms of rows too long for one block, by passes through device memory",
          {{"n", 65536, 4, 1 << 24, "complex values to a row, or half the reals"},
           precision,
           {"step", kFirst, kFirst, kPack,
            "0 and 1 the passes over columns, 2 the second pass of reals, 3 their split, 4 the "
            "way back"},
           {"inverse", 0, 0, 1, "1 for the passes of the inverse"},
           {"places", kOrdinary, kOrdinary, kTransposed,
            "1 for the passes of the inverse to reals, 2 for those of a convolution"}},
          make_four_step,
          four_step_samples()};
}

}  // namespace kevra_tools
