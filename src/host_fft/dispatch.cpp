#include "host_fft/dispatch.h"

#define KEVRA_DECLARE_PASSES(isa)            \
  namespace kevra::host_fft::isa {           \
  extern const Passes<double> kDoublePasses; \
  extern const Passes<float> kFloatPasses;   \
  }

KEVRA_DECLARE_PASSES(baseline)
#if defined(__x86_64__)
KEVRA_DECLARE_PASSES(avx2)
KEVRA_DECLARE_PASSES(avx512)
#endif

namespace kevra::host_fft {
namespace {

template <class T>
using Builds = std::vector<const Passes<T>*>;

void add_builds(Builds<double>& doubles, Builds<float>& floats) {
#if defined(__x86_64__)
  // Both work on vectors of 32 bytes. What AVX-512 adds is twice the registers, which keeps the
  // passes of radix 16 from spilling.
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
    if (__builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq")) {
      doubles.push_back(&avx512::kDoublePasses);
      floats.push_back(&avx512::kFloatPasses);
    }
    doubles.push_back(&avx2::kDoublePasses);
    floats.push_back(&avx2::kFloatPasses);
  }
#endif
  doubles.push_back(&baseline::kDoublePasses);
  floats.push_back(&baseline::kFloatPasses);
}

struct AllBuilds {
  Builds<double> doubles;
  Builds<float> floats;
  AllBuilds() { add_builds(doubles, floats); }
};

const AllBuilds& all_builds() {
  static const AllBuilds& builds = *new AllBuilds;
  return builds;
}

}  // namespace

template <>
const std::vector<const Passes<double>*>& supported_passes<double>() {
  return all_builds().doubles;
}
template <>
const std::vector<const Passes<float>*>& supported_passes<float>() {
  return all_builds().floats;
}

}  // namespace kevra::host_fft
