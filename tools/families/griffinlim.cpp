#include "codegen/kernels/griffinlim.h"

#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

template <class GriffinLimKernel>
Kernel make(const Values& values) {
  const GriffinLimKernel kernel{values.at("prec")};
  return {kernel.kName, kernel.key(), kernel.kBlock, 0, true, kernel.source(hip)};
}

}  // namespace

Family gl_mul_family() {
  return {"gl_mul",
          "magnitudes times phases, for Griffin-Lim",
          {float_or_double},
          make<codegen::GriffinLimMultiply>,
          {{{"prec", 1}}, {{"prec", 2}}}};
}

Family gl_step_family() {
  return {"gl_step",
          "the next phases of Griffin-Lim",
          {float_or_double},
          make<codegen::GriffinLimStep>,
          {{{"prec", 1}}, {{"prec", 2}}}};
}

}  // namespace kevra_tools
