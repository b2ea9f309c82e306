// Exported: initialisation, devices and their properties, error texts.
#include <unistd.h>

#include <algorithm>
#include <string>

#include "common/settings.h"
#include "kernel/architecture.h"
#include "platform/common/entry.h"
#include "runtime/device.h"
#include "runtime/queue.h"

using namespace kevra_cpu;
using namespace kevra_platform;

namespace {

constexpr int warp_size = 32;

int last_level_cache_bytes() {
  if (settings().cache != 0) return static_cast<int>(settings().cache);
  for (const int level : {_SC_LEVEL3_CACHE_SIZE, _SC_LEVEL2_CACHE_SIZE}) {
    const long bytes = sysconf(level);
    if (bytes > 0) return static_cast<int>(std::min<long>(bytes, INT32_MAX));
  }
  return 0;
}

int missing_device() {
  return settings().devices == 0 ? no_device : invalid_device;
}

}  // namespace

KEVRA_HIP_EXPORT int hipInit(unsigned flags) {
  return entry("hipInit", [&]() -> int { return flags == 0 ? success : invalid_value; });
}

KEVRA_HIP_EXPORT int hipGetDeviceCount(int* count) {
  return entry("hipGetDeviceCount", [&]() -> int {
    if (!count) return invalid_value;
    *count = settings().devices;
    return *count > 0 ? success : no_device;
  });
}

KEVRA_HIP_EXPORT int hipSetDevice(int device) {
  return entry("hipSetDevice", [&] { return set_current_device(device); });
}

KEVRA_HIP_EXPORT int hipGetDevice(int* device) {
  return entry("hipGetDevice", [&]() -> int {
    if (!device) return invalid_value;
    if (!current_device()) return no_device;
    *device = current_device()->index;
    return success;
  });
}

KEVRA_HIP_EXPORT int hipDeviceGetAttribute(int* value, int attribute, int device) {
  return entry("hipDeviceGetAttribute", [&]() -> int {
    if (!value) return invalid_value;
    if (!device_at(device)) return missing_device();
    switch (attribute) {
      case attribute_l2_cache_bytes:
        *value = last_level_cache_bytes();
        return success;
      case attribute_multiprocessors:
        *value = settings().threads;
        return success;
      case attribute_shared_bytes_per_block:
        *value = static_cast<int>(settings().shared_limit);
        return success;
      case attribute_warp_size:
        *value = warp_size;
        return success;
      default:
        return invalid_value;
    }
  });
}

KEVRA_HIP_EXPORT int hipGetDevicePropertiesR0600(DeviceProperties* properties, int device) {
  return entry("hipGetDevicePropertiesR0600", [&]() -> int {
    if (!properties) return invalid_value;
    if (!device_at(device)) return missing_device();
    const std::string architecture = architecture_name();
    *properties = make_properties({.name = "kevra CPU device",
                                   .architecture = architecture,
                                   .memory = settings().memory,
                                   .multiprocessors = settings().threads});
    return success;
  });
}

KEVRA_HIP_EXPORT int hipDeviceSynchronize() {
  return entry("hipDeviceSynchronize", []() -> int {
    const Device* device = current_device();
    return device ? finish_device(device->index) : static_cast<int>(no_device);
  });
}

KEVRA_HIP_EXPORT const char* hipGetErrorString(int code) {
  const char* text = nullptr;
  entry("hipGetErrorString", [&] {
    text = error_text(code);
    return 0;
  });
  return text;
}
