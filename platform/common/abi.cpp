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

DeviceProperties make_properties(const DeviceFacts& facts) {
  DeviceProperties properties{};
  set_text(properties.name, facts.name);
  set_text(properties.architecture, facts.architecture);
  properties.total_global_memory = facts.memory;
  properties.multiprocessors = facts.multiprocessors;
  return properties;
}

}  // namespace kevra_platform
