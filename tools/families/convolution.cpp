#include "codegen/kernels/convolution.h"

#include "codegen/kernels/convolution_adjoint.h"
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

Kernel make_stage(const Values& values) {
  const bool is_complex = values.at("complex") != 0;
  const bool reversed = values.at("reversed") != 0;
  const codegen::ConvStageKernel kernel{values.at("prec"), is_complex, reversed,
                                        reversed && is_complex};
  return {kernel.kName, kernel.key(), kBlock, 0, true, kernel.source(hip)};
}

Kernel make_row_sum(const Values& values) {
  const codegen::ConvRowSumKernel kernel{values.at("prec"), values.at("complex") != 0};
  return {kernel.kName, kernel.key(), kBlock, 0, true, kernel.source(hip)};
}

const Parameter complex_values{"complex", 0, 0, 1, "1 for complex values"};

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

Family conv_stage_family() {
  return {"conv_stage",
          "rows into zeros at an offset, for the gradient of a convolution",
          {precision, complex_values, {"reversed", 0, 0, 1, "1 turns the row around"}},
          make_stage,
          {{{"prec", 0}},
           {{"prec", 1}, {"reversed", 1}},
           {{"prec", 2}},
           {{"prec", 1}, {"complex", 1}},
           {{"prec", 2}, {"complex", 1}, {"reversed", 1}}}};
}

Family conv_row_sum_family() {
  return {"conv_row_sum",
          "the sum of rows, in their order",
          {precision, complex_values},
          make_row_sum,
          {{{"prec", 0}}, {{"prec", 1}}, {{"prec", 2}}, {{"prec", 1}, {"complex", 1}}}};
}

}  // namespace kevra_tools
