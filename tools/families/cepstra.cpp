#include "codegen/kernels/cepstra.h"

#include "codegen/kernels/row_product.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

Kernel make_cepstra(const Values& values) {
  const codegen::CepstraKernel kernel{values.at("prec"), values.at("n_mels"), values.at("n_out"),
                                      values.at("floored") != 0};
  return {kernel.kName, kernel.key(), kernel.kBlock, 0, true, kernel.source(hip)};
}

Kernel make_cepstra_peak(const Values& values) {
  const codegen::CepstraPeakKernel kernel{values.at("prec")};
  return {kernel.kName,          kernel.key(), kernel.kBlock,
          kernel.shared_bytes(), true,         kernel.source(hip)};
}

Kernel make_inverse_mel(const Values& values) {
  const codegen::RowProductKernel kernel{values.at("prec"), values.at("n_in"), values.at("n_out"),
                                         static_cast<codegen::ProductStore>(values.at("mode"))};
  return {kernel.kName, kernel.key(), kernel.kBlock, 0, true, kernel.source(hip)};
}

}  // namespace

Family cepstra_family() {
  return {"cepstra",
          "cepstra of bands in device memory",
          {{"n_mels", 128, 1, 1 << 16, "bands"},
           {"n_out", 20, 1, 1 << 16, "coefficients"},
           {"floored", 1, 0, 1, "1 raises the bands to a floor below their signal's loudest"},
           float_or_double},
          make_cepstra,
          {{{"prec", 1}}, {{"prec", 2}}, {{"floored", 0}}, {{"n_mels", 40}, {"n_out", 13}}}};
}

Family cepstra_peak_family() {
  return {"cepstra_peak",
          "the loudest band of a signal",
          {float_or_double},
          make_cepstra_peak,
          {{{"prec", 1}}, {{"prec", 2}}}};
}

Family inverse_mel_family() {
  return {"inverse_mel",
          "rows of mel bands to bins",
          {{"n_in", 128, 1, 1 << 16, "bands"},
           {"n_out", 1025, 1, 1 << 16, "bins"},
           {"mode", 1, 0, 2, "0 the sum, 1 at least 0, 2 another array where it is not below 0"},
           float_or_double},
          make_inverse_mel,
          {{{"prec", 1}}, {{"prec", 2}}, {{"mode", 0}}, {{"mode", 2}}}};
}

}  // namespace kevra_tools
