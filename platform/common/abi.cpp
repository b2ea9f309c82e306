#include "platform/common/abi.h"

#include <algorithm>
#include <cstring>

namespace kevra_platform {
namespace {

// Cut at the field's end; the record starts as zeros, so the text ends in one.
void set_text(char (&field)[256], std::string_view text) {
  std::memcpy(field, text.data(), std::min(text.size(), sizeof field - 1));
}

}  // namespace

const char* status_text(int code) {
  switch (code) {
    case success:
      return "no error";
    case invalid_value:
      return "invalid argument";
    case out_of_memory:
      return "out of memory";
    case no_device:
      return "no device is present";
    case invalid_device:
      return "invalid device";
    case invalid_image:
      return "invalid code object";
    case no_binary_for_device:
      return "code object was made for another device";
    case invalid_handle:
      return "invalid handle";
    case illegal_state:
      return "operation not allowed in the present state";
    case not_found:
      return "named symbol not found";
    case not_ready:
      return "device not ready";
    case launch_failure:
      return "unspecified launch failure";
    case capture_unsupported:
      return "operation not permitted while the stream is capturing";
    case capture_invalidated:
      return "stream capture failed because of an earlier error";
    case capture_isolation:
      return "stream capture would depend on work outside of it";
    case captured_event:
      return "event was last recorded in a stream capture";
    default:
      return "unknown error";
  }
}

DeviceProperties make_properties(const DeviceFacts& facts) {
  DeviceProperties properties{};
  set_text(properties.name, facts.name);
  set_text(properties.architecture, facts.architecture);
  properties.total_global_memory = facts.memory;
  properties.multiprocessors = facts.multiprocessors;
  return properties;
}

}  // namespace kevra_platform
