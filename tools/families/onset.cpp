#include "codegen/kernels/onset.h"

#include "families/common.h"

namespace kevra_tools {
namespace {

Kernel make_onset(const Values& values) {
  const kevra::codegen::OnsetKernel kernel{values.at("prec")};
  return {kernel.kName,          kernel.key(), kernel.kBlock,
          kernel.shared_bytes(), true,         kernel.source(hip)};
}

}  // namespace

Family onset_family() {
  return {"onset",
          "spectral flux of frames",
          {precision},
          make_onset,
          {{{"prec", 0}}, {{"prec", 1}}, {{"prec", 2}}}};
}

}  // namespace kevra_tools
