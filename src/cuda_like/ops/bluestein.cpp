#include "cuda_like/ops/bluestein.h"

#include <stdexcept>
#include <string>

namespace kevra::ops {

template <class T>
void bluestein_complex(const FftCall& call) {
  throw std::runtime_error("fft: n = " + std::to_string(call.n) +
                           " takes the Bluestein route, which is not built yet");
}

template void bluestein_complex<float>(const FftCall&);
template void bluestein_complex<double>(const FftCall&);

}  // namespace kevra::ops
