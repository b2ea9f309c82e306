#include "cuda_like/ops/stft_staged.h"

#include <stdexcept>
namespace kevra::ops {
template <class T>
void staged_stft(const StftCall&, const codegen::StftConfig&) {
  throw std::runtime_error("staged");
}
template void staged_stft<float>(const StftCall&, const codegen::StftConfig&);
template void staged_stft<double>(const StftCall&, const codegen::StftConfig&);
}  // namespace kevra::ops
