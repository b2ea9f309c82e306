// What the tests of lanes share: the size of their grids, and how a kernel's groups fared.
#pragma once

#include <string>

#include "kernel_api.h"

namespace hip {

constexpr unsigned threads = 32, blocks = 64, count = threads * blocks;

// How the groups of a kernel fared, from what the device tells at the end of the process.
struct Fate {
  unsigned long long groups = 0, lanes = 0, diverged = 0, alone = 0;
};

inline Fate fate_of(const std::string& output, const std::string& kernel) {
  Fate fate;
  const size_t at = output.find("kernel '" + kernel + "': ");
  if (at == std::string::npos) return fate;
  std::sscanf(output.c_str() + at + kernel.size() + 11,
              "%llu groups of %llu blocks in lanes, %llu of them diverged, %llu blocks alone",
              &fate.groups, &fate.lanes, &fate.diverged, &fate.alone);
  return fate;
}

inline const Environment told = {{"KEVRA_DEBUG", "1"}};

}  // namespace hip
