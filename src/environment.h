// The one place that reads the environment, below all floors. Values are read at every call: a
// variable that is set before the first use of what it steers takes effect.
#pragma once

#include <optional>
#include <string>

namespace kevra::environment {

// KEVRA_HIP_PATH, KEVRA_HIPRTC_PATH: a library to load. Unset or empty: none.
std::optional<std::string> hip_path();
std::optional<std::string> hiprtc_path();

// KEVRA_HIP_INCLUDE: include directory for kernels. Unset or empty: none.
std::optional<std::string> hip_include();

// KEVRA_CACHE_DIR: root of the code-object cache. Set but empty counts as set.
std::optional<std::string> cache_dir();

// KEVRA_DEBUG: what to tell on stderr; 0, and anything that is no number, is silence.
int debug_level();

// KEVRA_NUM_THREADS, else OMP_NUM_THREADS: the most threads that a host loop may use, up to 4096;
// 0 for as many as the machine is worth. KEVRA_NUM_THREADS may be 0 to overrule the other one.
int thread_limit();

}  // namespace kevra::environment
