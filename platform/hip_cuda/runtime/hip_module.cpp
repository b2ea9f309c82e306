// Exported: code objects, their functions, and launches.
#include <vector>

#include "driver/settings.h"
#include "runtime/on_device.h"

using namespace kevra_cuda;
using namespace kevra_platform;

namespace {

// Without this a function gets 48 KiB of shared memory and no more. It is opened for all that the
// device has beside the function's static arrays; what a launch asks for still decides how many
// blocks run side by side.
int open_for_shared(const Driver& cuda, void* function) {
  int device = 0, limit = 0, fixed = 0;
  if (const int failed = current_device(&device)) return failed;
  if (const int failed = device_query(&limit, query_shared_bytes_opt_in, device)) return failed;
  if (const int failed = cuda.cuFuncGetAttribute(&fixed, query_static_shared_bytes, function))
    return failed;
  return cuda.cuFuncSetAttribute(function, query_largest_dynamic_shared, limit - fixed);
}

}  // namespace

// Foreign and damaged images are told even where there is no device to load one.
KEVRA_HIP_EXPORT int hipModuleLoadData(void** out, const void* image) {
  return entry("hipModuleLoadData", [&]() -> int {
    if (!out || !image) return invalid_value;
    int device = 0;
    const int failed = current_device(&device);
    const std::string architecture = architecture_name(device);
    std::vector<std::byte> elf;
    const int refused = open_image(image, code_object_tag(architecture), &elf);
    if (refused == invalid_image || (refused && !architecture.empty())) return refused;
    return failed ? failed : driver()->cuModuleLoadData(out, elf.data());
  });
}

KEVRA_HIP_EXPORT int hipModuleGetFunction(void** out, void* module, const char* name) {
  return on_device("hipModuleGetFunction", [&](const Driver& cuda) -> int {
    if (!out || !name) return invalid_value;
    if (!module) return invalid_handle;
    if (const int failed = cuda.cuModuleGetFunction(out, module, name)) return failed;
    return open_for_shared(cuda, *out);
  });
}

KEVRA_HIP_EXPORT int hipModuleLaunchKernel(void* function, unsigned grid_x, unsigned grid_y,
                                           unsigned grid_z, unsigned block_x, unsigned block_y,
                                           unsigned block_z, unsigned shared_bytes, void* stream,
                                           void** arguments, void** extra) {
  return on_device("hipModuleLaunchKernel", [&](const Driver& cuda) -> int {
    if (!function) return invalid_handle;
    if (extra) return invalid_value;  // a packed argument buffer is not taken
    const auto limit = settings().shared_limit;
    if (limit && shared_bytes > static_cast<unsigned>(*limit)) return invalid_value;
    return cuda.cuLaunchKernel(function, grid_x, grid_y, grid_z, block_x, block_y, block_z,
                               shared_bytes, stream, arguments, nullptr);
  });
}
