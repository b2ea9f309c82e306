#include <bit>

#include "codegen/kernels/contrast_adjoint.h"
#include "codegen/kernels/db_adjoint.h"
#include "codegen/kernels/onset_adjoint.h"
#include "codegen/kernels/rms_adjoint.h"
#include "codegen/kernels/spectral_adjoint.h"
#include "codegen/kernels/tonnetz_adjoint.h"
#include "codegen/stft_config.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

// Of a record that the precision alone shapes.
template <class Record>
Kernel make(const Values& values) {
  const Record kernel{values.at("prec")};
  size_t shared = 0;
  if constexpr (requires { kernel.shared_bytes(); }) shared = kernel.shared_bytes();
  return {kernel.kName, kernel.key(), kernel.kBlock, shared, true, kernel.source(hip)};
}

template <class Record>
Family family(const char* name, const char* what) {
  return {name, what, {float_or_double}, make<Record>, {{{"prec", 1}}, {{"prec", 2}}}};
}

Kernel make_spectral(const Values& values) {
  const codegen::SpectralAdjointKernel kernel{values.at("prec"), values.at("stat")};
  return {kernel.kName,          kernel.key(), kernel.kBlock,
          kernel.shared_bytes(), true,         kernel.source(hip)};
}

Kernel make_contrast(const Values& values) {
  const int64_t pad = std::bit_ceil(static_cast<unsigned>(values.at("widest")));
  const auto kernel = codegen::ContrastAdjointKernel::chosen(values.at("prec"), pad, kSharedLimit);
  return {kernel.name(), kernel.key(),
          kernel.kBlock, static_cast<size_t>(kernel.shared_bytes(pad)),
          true,          kernel.source(hip)};
}

// Both precisions, with one other parameter at each of these.
std::vector<Values> samples(const char* name, const std::vector<int>& at) {
  std::vector<Values> all;
  for (int prec : {codegen::kFloat, codegen::kDouble}) {
    for (int value : at) all.push_back({{"prec", prec}, {name, value}});
  }
  return all;
}

}  // namespace

Family spectral_adjoint_family() {
  return {"spectral_adjoint",
          "gradient of a statistic of rows of magnitudes",
          {float_or_double,
           {"stat", codegen::kCentroid, codegen::kCentroid, codegen::kFlatness,
            "0 centroid, 1 bandwidth, 2 flatness"}},
          make_spectral,
          samples("stat", {codegen::kCentroid, codegen::kBandwidth, codegen::kFlatness})};
}

Family contrast_adjoint_family() {
  return {"contrast_adjoint",
          "gradient of the contrast of bands of rows of magnitudes",
          {float_or_double, {"widest", 512, 2, 1 << 20, "bins of the widest band"}},
          make_contrast,
          samples("widest", {512, 1 << 20})};
}

Family db_adjoint_family() {
  return family<codegen::DbAdjointKernel>("db_adjoint", "gradient of decibels");
}

Family rms_adjoint_family() {
  return family<codegen::RmsAdjointKernel>("rms_adjoint",
                                           "gradient of root-mean-square energy of frames");
}

Family onset_adjoint_family() {
  return family<codegen::OnsetAdjointKernel>("onset_adjoint",
                                             "gradient of spectral flux of frames");
}

Family tonnetz_adjoint_family() {
  return family<codegen::TonnetzAdjointKernel>("tonnetz_adjoint",
                                               "gradient of tonal coordinates of chroma");
}

}  // namespace kevra_tools
