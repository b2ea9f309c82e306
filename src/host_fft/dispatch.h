// Which build of the passes runs on this processor.
#pragma once

#include <vector>

#include "host_fft/passes.h"

namespace kevra::host_fft {

// Every build that the processor can run, the best first; defined for float and double.
template <class T>
const std::vector<const Passes<T>*>& supported_passes();

template <class T>
const Passes<T>& passes() {
  static const Passes<T>& best = *supported_passes<T>().front();
  return best;
}

}  // namespace kevra::host_fft
