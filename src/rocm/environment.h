// The one place that reads the environment. Values are read at every call: a variable that is
// set before the first use of what it steers takes effect.
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

}  // namespace kevra::environment
