#include "codegen/kernels/cqt.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "codegen/kernels/chroma.h"
#include "codegen/kernels/conjugate_gradient.h"
#include "codegen/kernels/cqt_adjoint.h"
#include "codegen/kernels/cqt_fused.h"
#include "codegen/kernels/icqt.h"
#include "codegen/kernels/tonnetz.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

constexpr int kBlock = 256;

// The three storage precisions with nothing else to choose.
const std::vector<Values> every_precision{
    {{"prec", codegen::kHalf}}, {{"prec", codegen::kFloat}}, {{"prec", codegen::kDouble}}};
const Parameter arithmetic{"prec", codegen::kFloat, codegen::kFloat, codegen::kDouble,
                           "1 float, 2 double"};
const std::vector<Values> both_twins{{{"prec", codegen::kFloat}}, {{"prec", codegen::kDouble}}};
const Parameter form{"form", 0, 0, 3, "0 complex, 1 magnitude, 2 power, 3 decibels"};

Kernel make_fused(const Values& values) {
  const int prec = values.at("prec");
  const int n_fft = values.at("n_fft");
  const codegen::StftRequest request{
      .prec = codegen::compute_precision(prec),
      .n_fft = n_fft,
      .hop = values.at("hop") != 0 ? values.at("hop") : std::max(n_fft / 4, 1),
      .pad = 0,
      .length = 0,  // shapes no text, as the number of frames
      .frames = 0,
      .form = values.at("form"),
      .eps = 1e-10};
  const auto kernel =
      codegen::route_cqt(request, codegen::storage_precision(prec), 0, kSharedLimit);
  if (!kernel) {
    throw std::invalid_argument("n_fft = " + std::to_string(n_fft) +
                                " goes through device memory; this family is the fused kernel");
  }
  return {kernel->kName,          kernel->key(), kernel->block(),
          kernel->shared_bytes(), true,          kernel->source(hip)};
}

std::vector<Values> fused_samples() {
  std::vector<Values> samples;
  for (int n_fft : {256, 512, 1024, 2048, 4096}) {
    for (int prec : {codegen::kHalf, codegen::kFloat, codegen::kDouble}) {
      if (n_fft == 4096 && prec == codegen::kDouble) continue;  // does not fit
      samples.push_back({{"n_fft", n_fft}, {"prec", prec}});
    }
  }
  for (int f : {1, 2, 3}) samples.push_back({{"form", f}});
  return samples;
}

template <class Kernel>
kevra_tools::Kernel plain(const Kernel& kernel) {
  return {kernel.kName, kernel.key(), kBlock, 0, true, kernel.source(hip)};
}

Kernel make_half_band(const Values& values) {
  const int prec = values.at("prec");
  return plain(
      codegen::HalfBandKernel{codegen::compute_precision(prec), codegen::storage_precision(prec)});
}

Kernel make_pad(const Values& values) {
  const int prec = values.at("prec");
  return plain(
      codegen::CqtPadKernel{codegen::compute_precision(prec), codegen::storage_precision(prec)});
}

Kernel make_reduce(const Values& values) {
  const int prec = values.at("prec");
  return plain(codegen::CqtReduceKernel{codegen::compute_precision(prec), values.at("form"),
                                        codegen::storage_precision(prec), 1e-10});
}

Kernel make_bin_gradients(const Values& values) {
  return plain(codegen::CqtBinGradientKernel{values.at("prec"), values.at("form"), 1e-10});
}

template <class GradientKernel>
Kernel make_gradient(const Values& values) {
  return plain(GradientKernel{values.at("prec")});
}

Kernel make_chroma(const Values& values) {
  const int prec = values.at("prec");
  return plain(codegen::ChromaKernel{codegen::compute_precision(prec), values.at("n_chroma"),
                                     codegen::storage_precision(prec)});
}

Kernel make_dual(const Values& values) {
  return plain(codegen::IcqtDualKernel{values.at("prec")});
}

Kernel make_dot(const Values& values) {
  const codegen::VectorDotKernel kernel{values.at("prec")};
  return {kernel.kName,          kernel.key(), kernel.kBlock,
          kernel.shared_bytes(), true,         kernel.source(hip)};
}

Kernel make_update(const Values& values) {
  return plain(codegen::VectorUpdateKernel{values.at("prec")});
}

Kernel make_alpha(const Values& values) {
  return plain(codegen::CgAlphaKernel{values.at("prec")});
}

Kernel make_beta(const Values& values) {
  return plain(codegen::CgBetaKernel{values.at("prec")});
}

Kernel make_overlap(const Values& values) {
  return plain(codegen::IcqtOverlapKernel{values.at("prec")});
}

Kernel make_chroma_adjoint(const Values& values) {
  return plain(codegen::ChromaAdjointKernel{values.at("prec"), values.at("n_chroma")});
}

Kernel make_tonnetz(const Values& values) {
  return plain(codegen::TonnetzKernel{values.at("prec")});
}

}  // namespace

Family cqt_family() {
  return {"cqt",
          "constant-Q bins of a padded signal, through spectra in shared memory",
          {{"n_fft", 1024, 2, 1 << 16, "frame length in samples, a power of two"},
           {"hop", 0, 0, 1 << 16, "frame step in samples; 0 is a quarter of the frame"},
           precision,
           form},
          make_fused,
          fused_samples()};
}

Family cqt_half_band_family() {
  return {
      "cqt_half_band", "half-band decimation by two", {precision}, make_half_band, every_precision};
}

Family cqt_pad_family() {
  return {"cqt_pad",
          "half samples into padded rows of floats",
          {{"prec", codegen::kHalf, codegen::kHalf, codegen::kHalf, "0, half storage"}},
          make_pad,
          {{}}};
}

Family cqt_reduce_family() {
  return {"cqt_reduce",
          "constant-Q bins of spectra in device memory",
          {precision, form},
          make_reduce,
          {{{"prec", codegen::kHalf}},
           {{"prec", codegen::kFloat}},
           {{"prec", codegen::kDouble}},
           {{"form", 3}}}};
}

Family cqt_bin_gradient_family() {
  return {"cqt_bin_gradient",
          "gradients of constant-Q bins from those of their form",
          {arithmetic, form},
          make_bin_gradients,
          {{{"form", 0}}, {{"form", 1}}, {{"form", 2}}, {{"form", 3}}, {{"prec", 2}, {"form", 1}}}};
}

Family cqt_spectrum_gradient_family() {
  return {"cqt_spectrum_gradient",
          "gradients of spectra from those of constant-Q bins",
          {arithmetic},
          make_gradient<codegen::CqtSpectrumGradientKernel>,
          both_twins};
}

Family cqt_half_band_adjoint_family() {
  return {"cqt_half_band_adjoint",
          "the transpose of half-band decimation",
          {arithmetic},
          make_gradient<codegen::HalfBandAdjointKernel>,
          both_twins};
}

Family cqt_add_level_family() {
  return {"cqt_add_level",
          "a padded signal's gradient, added to its level's",
          {arithmetic},
          make_gradient<codegen::CqtAddLevelKernel>,
          both_twins};
}

Family chroma_family() {
  return {"chroma",
          "pitch classes of constant-Q magnitudes",
          {precision, {"n_chroma", 12, 1, 1024, "classes"}},
          make_chroma,
          every_precision};
}

Family icqt_dual_family() {
  return {"icqt_dual",
          "spectra of frames from constant-Q bins by dual filters",
          {arithmetic},
          make_dual,
          both_twins};
}

Family icqt_overlap_family() {
  return {"icqt_overlap",
          "mean of overlapping frames, added to a signal",
          {arithmetic},
          make_overlap,
          both_twins};
}

Family chroma_adjoint_family() {
  return {"chroma_adjoint",
          "gradients of constant-Q magnitudes from those of pitch classes",
          {arithmetic, {"n_chroma", 12, 1, 1024, "classes"}},
          make_chroma_adjoint,
          both_twins};
}

Family vector_dot_family() {
  return {"vector_dot", "sums of products of rows", {arithmetic}, make_dot, both_twins};
}

Family vector_update_family() {
  return {"vector_update", "y = a x + c y by row", {arithmetic}, make_update, both_twins};
}

Family cg_alpha_family() {
  return {
      "cg_alpha", "steps of the conjugate-gradient method", {arithmetic}, make_alpha, both_twins};
}

Family cg_beta_family() {
  return {"cg_beta",
          "directions of the conjugate-gradient method",
          {arithmetic},
          make_beta,
          both_twins};
}

Family tonnetz_family() {
  return {"tonnetz", "tonal coordinates of chroma", {precision}, make_tonnetz, every_precision};
}

}  // namespace kevra_tools
