#include "driver/device.h"

#include <mutex>
#include <vector>

#include "driver/settings.h"
#include "platform/common/device_text.h"

using namespace kevra_platform;

namespace kevra_cuda {
namespace {

// Retained once and to the end of the process, as handles and memory outlive every caller.
int primary_context(const Driver& cuda, int device, void** context) {
  static std::mutex& mutex = *new std::mutex;
  static auto& retained = *new std::vector<void*>;
  const std::lock_guard lock(mutex);
  if (retained.size() <= static_cast<size_t>(device)) retained.resize(device + 1);
  void*& kept = retained[device];
  if (kept == nullptr) {
    if (const int failed = cuda.cuDevicePrimaryCtxRetain(&kept, device)) return failed;
  }
  *context = kept;
  return success;
}

}  // namespace

int set_current_device(int index) {
  const Driver* cuda = driver();
  if (cuda == nullptr) return start_failure();
  int device = 0;
  if (const int failed = cuda->cuDeviceGet(&device, index)) return failed;
  void* context = nullptr;
  if (const int failed = primary_context(*cuda, device, &context)) return failed;
  return cuda->cuCtxSetCurrent(context);
}

int current_device(int* index) {
  const Driver* cuda = driver();
  if (cuda == nullptr) return start_failure();
  // The driver's handles of devices are their numbers.
  if (cuda->cuCtxGetDevice(index) == success) return success;
  *index = 0;
  return set_current_device(0);
}

int device_query(int* value, DeviceQuery query, int index) {
  const Driver* cuda = driver();
  if (cuda == nullptr) return start_failure();
  int device = 0;
  if (const int failed = cuda->cuDeviceGet(&device, index)) return failed;
  return cuda->cuDeviceGetAttribute(value, query, device);
}

int shared_limit(int* bytes, int index) {
  if (const int failed = device_query(bytes, query_shared_bytes_opt_in, index)) return failed;
  *bytes = settings().shared_limit.value_or(*bytes);
  return success;
}

std::string architecture_name(int index) {
  if (!settings().architecture.empty()) return settings().architecture;
  int major = 0, minor = 0;
  if (device_query(&major, query_capability_major, index) != success ||
      device_query(&minor, query_capability_minor, index) != success)
    return "";
  return "sm_" + std::to_string(major) + std::to_string(minor);
}

ImageTag code_object_tag(const std::string& architecture) {
  return {"KEVRACUD", device_version, architecture};
}

}  // namespace kevra_cuda
