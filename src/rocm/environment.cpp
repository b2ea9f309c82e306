#include "rocm/environment.h"

#include <cstdlib>

namespace kevra::environment {
namespace {

std::optional<std::string> variable(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr) return std::nullopt;
  return value;
}

std::optional<std::string> filled_variable(const char* name) {
  auto value = variable(name);
  if (value && value->empty()) return std::nullopt;
  return value;
}

}  // namespace

std::optional<std::string> hip_path() {
  return filled_variable("KEVRA_HIP_PATH");
}
std::optional<std::string> hiprtc_path() {
  return filled_variable("KEVRA_HIPRTC_PATH");
}
std::optional<std::string> hip_include() {
  return filled_variable("KEVRA_HIP_INCLUDE");
}
std::optional<std::string> cache_dir() {
  return variable("KEVRA_CACHE_DIR");
}
int debug_level() {
  return std::atoi(variable("KEVRA_DEBUG").value_or("0").c_str());
}

}  // namespace kevra::environment
