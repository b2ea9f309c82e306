#include "codegen/kernels/convolution.h"

#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

constexpr int kBlock = 256;

template <class ConvolutionKernel>
Kernel make(const Values& values) {
  const ConvolutionKernel kernel{values.at("prec")};
  return {kernel.kName, kernel.key(), kBlock, 0, true, kernel.source(hip)};
}

std::vector<Values> precisions() {
  return {{{"prec", 0}}, {{"prec", 1}}, {{"prec", 2}}};
}

}  // namespace

Family conv_pad_family() {
  return {"conv_pad",
          "rows followed by zeros, for a convolution through transforms",
          {precision},
          make<codegen::ConvPadKernel>,
          precisions()};
}

Family conv_multiply_family() {
  return {"conv_multiply",
          "products of two spectra",
          {precision},
          make<codegen::ConvMultiplyKernel>,
          {{{"prec", 1}}, {{"prec", 2}}}};
}

Family conv_slice_family() {
  return {"conv_slice",
          "the asked part of a convolution",
          {precision},
          make<codegen::ConvSliceKernel>,
          precisions()};
}

Family conv_direct_family() {
  return {"conv_direct",
          "convolution as a direct sum",
          {precision},
          make<codegen::ConvDirectKernel>,
          precisions()};
}

}  // namespace kevra_tools
