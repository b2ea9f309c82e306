// The KEVRA_CUDA_* switches of the environment, read once a process into one record; failures on
// demand (KEVRA_CUDA_FAIL) are in platform/common/faults.h.
#pragma once

#include <optional>
#include <string>

namespace kevra_cuda {

struct Settings {
  std::string architecture;         // ARCH: sm_NN; empty: the device's own
  std::string nvrtc;                // NVRTC: library to load; empty: looked for
  std::optional<int> shared_limit;  // SHARED_LIMIT: bytes a block may ask for; unset: the device's
};

const Settings& settings();

}  // namespace kevra_cuda
