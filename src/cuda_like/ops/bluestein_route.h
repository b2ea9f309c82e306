// Which kernels a transform by convolution with a chirp takes. Pure functions, as in fft_route.h.
#pragma once

#include <cstdint>
#include <optional>

#include "codegen/kernels/bluestein.h"

namespace kevra::ops {

struct BluesteinShape {
  codegen::BluesteinMode mode;
  int n;
  bool wide;  // the double twin
  bool inverse;
  bool half;  // 16-bit storage
};

// The kernel for rows that fit shared memory with their padding. None: through device memory, which
// is also the way of half storage and of double real data.
std::optional<codegen::BluesteinKernel> bluestein_in_shared(const BluesteinShape& shape,
                                                            int64_t shared_limit);

// The kernels through device memory, which take every shape.
codegen::BluesteinSteps bluestein_steps(const BluesteinShape& shape);

}  // namespace kevra::ops
