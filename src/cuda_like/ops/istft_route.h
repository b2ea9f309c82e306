// Which kernels the way back from a spectrogram takes. Pure functions of sizes, precision, hint and
// the device's shared memory; nothing here touches a device.
#pragma once

#include <cstdint>

#include "codegen/kernels/istft.h"
#include "codegen/stft_config.h"

namespace kevra::ops {

struct IstftShape {
  int n_fft;
  int hop;
  bool wide;   // the double twin
  bool half;   // 16-bit storage
  bool slots;  // every frame for itself in memory, so that no sum depends on the order of threads
};

struct IstftRoute {
  // No block holds a frame's transform: the frames go through device memory and the ordinary
  // transforms, and `kernel` is that of the normalization alone.
  bool staged;
  codegen::IstftKernel kernel;
};

bool istft_is_staged(int n_fft, int compute, int64_t shared_limit);
IstftRoute route_istft(const IstftShape& shape, const codegen::ShapeHint& hint,
                       int64_t shared_limit);

}  // namespace kevra::ops
