#include "codegen/kernels/bluestein.h"

#include <stdexcept>
#include <string>

#include "codegen/sizes.h"
#include "cuda_like/ops/bluestein_route.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;
namespace ops = kevra::ops;

using codegen::BluesteinMode;

constexpr int kInShared = 0;  // of parameter `step`; the kernels through device memory are 1 to 3

ops::BluesteinShape shape_of(const Values& values) {
  const auto mode = static_cast<BluesteinMode>(values.at("mode"));
  const int prec = values.at("prec");
  const bool inverse = mode == BluesteinMode::kComplex ? values.at("inverse") != 0
                                                       : mode == BluesteinMode::kRealInverse;
  return {.mode = mode,
          .n = values.at("n"),
          .wide = prec == codegen::kDouble,
          .inverse = inverse,
          .half = prec == codegen::kHalf};
}

// Whether a transform takes this route at all when nothing asks for it.
bool default_route(const ops::BluesteinShape& shape, bool in_shared) {
  const bool fits = ops::bluestein_in_shared(shape, kSharedLimit).has_value();
  return codegen::needs_bluestein(shape.n) && fits == in_shared;
}

Kernel make_in_shared(const ops::BluesteinShape& shape) {
  const auto kernel = ops::bluestein_in_shared(shape, kSharedLimit);
  if (!kernel) {
    throw std::invalid_argument("n = " + std::to_string(shape.n) +
                                " goes through device memory in this form; step=1 to 3 show it");
  }
  return {kernel->name(),
          kernel->key(),
          kernel->block(),
          kernel->shared_bytes(),
          default_route(shape, true),
          bluestein_source(*kernel, hip)};
}

Kernel make_bluestein(const Values& values) {
  const ops::BluesteinShape shape = shape_of(values);
  const int step = values.at("step");
  if (step == kInShared) return make_in_shared(shape);
  const codegen::BluesteinSteps steps = ops::bluestein_steps(shape);
  const auto kernel = [&](const char* name, std::string key, std::string source) {
    return Kernel{
        name, std::move(key), steps.kBlock, 0, default_route(shape, false), std::move(source)};
  };
  if (step == 1) return kernel(steps.kPreName, steps.pre_key(), bluestein_pre_source(steps, hip));
  if (step == 2) {
    return kernel(steps.kMultiplyName, steps.multiply_key(), bluestein_multiply_source(steps, hip));
  }
  return kernel(steps.kPostName, steps.post_key(), bluestein_post_source(steps, hip));
}

// Lengths whose padded ones reach every radix of the stages and every block size up to the
// longest row of a block.
constexpr int kSizes[] = {41,   53,   83,   101,  127,  173,  211,  254,  263,  331,
                          397,  509,  571,  631,  757,  881,  1009, 1031, 1201, 1493,
                          1801, 2039, 2417, 2861, 3067, 3499, 3833, 4099};

std::vector<Values> bluestein_samples() {
  std::vector<Values> samples;
  for (int n : kSizes) {
    for (int mode : {0, 1, 2}) {
      for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
        Values values{{"n", n}, {"prec", prec}, {"mode", mode}, {"inverse", 0}};
        if (ops::bluestein_in_shared(shape_of(values), kSharedLimit)) {
          samples.push_back(values);
        } else if (n == 127 || n == 4099) {
          for (int step : {1, 2, 3}) {
            values["step"] = step;
            samples.push_back(values);
          }
        }
      }
    }
  }
  return samples;
}

}  // namespace

Family bluestein_family() {
  return {"bluestein",
          "transform by convolution with a chirp",
          {{"n", 127, 1, 1 << 20, "size"},
           precision,
           {"mode", 0, 0, 2, "0 complex rows, 1 real forward, 2 real inverse"},
           {"inverse", 0, 0, 1, "1 for the inverse of complex rows"},
           {"step", kInShared, kInShared, 3,
            "0 in shared memory; through device memory: 1 before, 2 between, 3 after"}},
          make_bluestein,
          bluestein_samples()};
}

}  // namespace kevra_tools
