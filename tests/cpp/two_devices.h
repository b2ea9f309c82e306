// Settings of the CPU device that a test program needs; it reads them once, at its first call.
#pragma once

#include <cstdlib>

namespace kevra_test {

// Two devices of 64 MiB, small enough for a test to exhaust one. The cache that they tell, which
// tuners overwrite, is smaller still.
inline const bool two_small_devices = [] {
  setenv("KEVRA_CPU_DEVICES", "2", 1);
  setenv("KEVRA_CPU_MEMORY", "64M", 1);
  setenv("KEVRA_CPU_CACHE", "64K", 1);
  return true;
}();

}  // namespace kevra_test
