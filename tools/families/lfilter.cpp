#include "codegen/kernels/lfilter.h"

#include "codegen/kernels/lfilter_pack.h"
#include "families/common.h"

namespace kevra_tools {
namespace {

namespace codegen = kevra::codegen;

const std::vector<Parameter> filter{
    {"p", 2, 0, 32, "feedback taps"},
    {"m1", 3, 1, 1024, "feedforward taps"},
    {"prec", codegen::kFloat, codegen::kFloat, codegen::kDouble, "1 float, 2 double"}};

// All orders of the audio filters in use, and one without feedback.
std::vector<Values> filters() {
  std::vector<Values> samples;
  for (const int p : {0, 1, 2, 4, 6, 8}) {
    for (const int prec : {codegen::kFloat, codegen::kDouble}) {
      samples.push_back({{"p", p}, {"m1", p + 1}, {"prec", prec}});
    }
  }
  return samples;
}

template <class BlockKernel>
Kernel made(const BlockKernel& kernel) {
  return {kernel.kName,          kernel.key(), kernel.kBlock,
          kernel.shared_bytes(), true,         kernel.source(hip)};
}

codegen::LfilterKernel scan_of(const Values& values, int threads) {
  return {values.at("p"), values.at("m1"), values.at("prec"), threads, 16};
}

Kernel make_scan(const Values& values) {
  const codegen::LfilterKernel kernel = scan_of(values, values.at("threads"));
  return {kernel.kName,          kernel.key(), kernel.threads,
          kernel.shared_bytes(), true,         kernel.source(hip)};
}

Kernel make_pack(const Values& values) {
  return made(codegen::LfilterPackKernel{values.at("p"), values.at("m1"), values.at("prec")});
}

Kernel make_basis(const Values& values) {
  return made(scan_of(values, 256).basis());
}

}  // namespace

Family lfilter_family() {
  std::vector<Parameter> parameters = filter;
  parameters.push_back({"threads", 256, 1, 256, "threads to a row, a power of two"});
  std::vector<Values> samples;
  for (const int threads : {32, 64, 256}) {  // of many rows, a wave each, and of few
    for (Values sample : filters()) {
      sample["threads"] = threads;
      samples.push_back(sample);
    }
  }
  return {"lfilter", "recursive filter over rows", parameters, make_scan, samples};
}

Family lfilter_pack_family() {
  return {"lfilter_pack", "a filter's coefficient block", filter, make_pack, filters()};
}

Family lfilter_basis_family() {
  return {"lfilter_basis", "what the filter's scan reads, from a coefficient block", filter,
          make_basis, filters()};
}

}  // namespace kevra_tools
