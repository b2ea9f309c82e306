#include "codegen/kernels/rms.h"

#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

Kernel make_rms(const Values& values) {
  const codegen::RmsKernel kernel{values.at("prec")};
  return {codegen::RmsKernel::kName, kernel.key(), codegen::RmsKernel::kBlock,
          kernel.shared_bytes(),     true,         kernel.source(hip)};
}

}  // namespace

Family rms_family() {
  return {"rms",
          "root-mean-square energy of frames",
          {precision},
          make_rms,
          {{{"prec", 0}}, {{"prec", 1}}, {{"prec", 2}}}};
}

}  // namespace kevra_tools
