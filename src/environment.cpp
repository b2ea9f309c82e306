#include "environment.h"

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

// A number of threads from `least` to 4096; what follows its digits is not looked at.
std::optional<int> thread_count(const char* name, int least) {
  const auto text = variable(name);
  if (!text) return std::nullopt;
  char* end = nullptr;
  const long value = std::strtol(text->c_str(), &end, 10);
  if (end == text->c_str() || value < least || value > 4096) return std::nullopt;
  return static_cast<int>(value);
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

int thread_limit() {
  if (const auto threads = thread_count("KEVRA_NUM_THREADS", 0)) return *threads;
  return thread_count("OMP_NUM_THREADS", 1).value_or(0);
}

}  // namespace kevra::environment
