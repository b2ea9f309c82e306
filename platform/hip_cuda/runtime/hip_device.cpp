// Exported: initialisation, devices and their properties, error texts.
#include <array>

#include "runtime/on_device.h"

using namespace kevra_cuda;
using namespace kevra_platform;

KEVRA_HIP_EXPORT int hipInit(unsigned flags) {
  return entry("hipInit", [&]() -> int { return flags == 0 ? start_failure() : invalid_value; });
}

KEVRA_HIP_EXPORT int hipGetDeviceCount(int* count) {
  return entry("hipGetDeviceCount", [&]() -> int {
    if (!count) return invalid_value;
    *count = 0;
    if (!driver()) return start_failure();
    if (const int failed = driver()->cuDeviceGetCount(count)) return failed;
    return *count > 0 ? success : no_device;
  });
}

KEVRA_HIP_EXPORT int hipSetDevice(int device) {
  return entry("hipSetDevice", [&] { return set_current_device(device); });
}

KEVRA_HIP_EXPORT int hipGetDevice(int* device) {
  return entry("hipGetDevice",
               [&]() -> int { return device ? current_device(device) : invalid_value; });
}

KEVRA_HIP_EXPORT int hipDeviceGetAttribute(int* value, int attribute, int device) {
  return entry("hipDeviceGetAttribute", [&]() -> int {
    if (!value) return invalid_value;
    switch (attribute) {
      case attribute_l2_cache_bytes:
        return device_query(value, query_l2_cache_bytes, device);
      case attribute_multiprocessors:
        return device_query(value, query_multiprocessors, device);
      case attribute_shared_bytes_per_block:
        return shared_limit(value, device);
      case attribute_warp_size:
        return device_query(value, query_warp_size, device);
      default:
        return invalid_value;
    }
  });
}

KEVRA_HIP_EXPORT int hipGetDevicePropertiesR0600(DeviceProperties* properties, int index) {
  return entry("hipGetDevicePropertiesR0600", [&]() -> int {
    if (!properties) return invalid_value;
    DeviceFacts facts;
    if (const int failed = device_query(&facts.multiprocessors, query_multiprocessors, index))
      return failed;
    const Driver& cuda = *driver();
    int device = 0;
    size_t memory = 0;
    std::array<char, 256> name{};
    if (const int failed = cuda.cuDeviceGet(&device, index)) return failed;
    if (const int failed = cuda.cuDeviceTotalMem_v2(&memory, device)) return failed;
    if (const int failed = cuda.cuDeviceGetName(name.data(), name.size(), device)) return failed;
    const std::string architecture = architecture_name(index);
    facts.name = name.data();
    facts.architecture = architecture;
    facts.memory = memory;
    *properties = make_properties(facts);
    return success;
  });
}

KEVRA_HIP_EXPORT int hipDeviceSynchronize() {
  return on_device("hipDeviceSynchronize",
                   [](const Driver& cuda) { return cuda.cuCtxSynchronize(); });
}

KEVRA_HIP_EXPORT const char* hipGetErrorString(int code) {
  const char* text = nullptr;
  entry("hipGetErrorString", [&]() -> int {
    if (code != success && code == start_failure()) {
      text = start_text();
    } else if (!driver() || driver()->cuGetErrorString(code, &text) != success) {
      text = status_text(code);
    }
    return success;
  });
  return text;
}
