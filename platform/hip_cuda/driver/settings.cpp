#include "driver/settings.h"

#include "platform/common/variables.h"

const char* const kevra_platform::device_label = "CUDA device";
const char* const kevra_platform::failure_switch = "KEVRA_CUDA_FAIL";

using namespace kevra_platform;

namespace kevra_cuda {
namespace {

constexpr const char* device_value = "the device's own";
constexpr uint64_t largest_limit = 1 << 30;

// "sm_90", or "sm_90a" for the instructions that no later architecture has.
bool names_architecture(std::string_view text) {
  if (!text.starts_with("sm_")) return false;
  text.remove_prefix(3);
  if (text.ends_with('a') || text.ends_with('f')) text.remove_suffix(1);
  return whole_number(text).has_value();
}

Settings read_environment() {
  Settings out;
  out.nvrtc = variable("KEVRA_CUDA_NVRTC");
  const std::string_view architecture = variable("KEVRA_CUDA_ARCH");
  if (names_architecture(architecture)) {
    out.architecture = architecture;
  } else if (!architecture.empty()) {
    report_variable("KEVRA_CUDA_ARCH", architecture, "an architecture such as sm_90", device_value);
  }
  const std::string_view limit = variable("KEVRA_CUDA_SHARED_LIMIT");
  if (const auto bytes = byte_count(limit); bytes && *bytes <= largest_limit) {
    out.shared_limit = static_cast<int>(*bytes);
  } else if (!limit.empty()) {
    report_variable("KEVRA_CUDA_SHARED_LIMIT", limit,
                    "bytes from 0 to 1G as a whole number, or with K, M or G behind", device_value);
  }
  return out;
}

}  // namespace

const Settings& settings() {
  // Never destroyed: calls may come in while the process ends.
  static const Settings& value = *new Settings(read_environment());
  return value;
}

}  // namespace kevra_cuda
