#include "cuda_like/ops/four_step.h"

#include <stdexcept>
#include <string>

namespace kevra::ops {

template <class T>
void four_step_complex(const FftCall& call, bool, bool) {
  throw std::runtime_error("fft: n = " + std::to_string(call.n) +
                           " takes the four-step route, which is not built yet");
}

template void four_step_complex<float>(const FftCall&, bool, bool);
template void four_step_complex<double>(const FftCall&, bool, bool);

}  // namespace kevra::ops
