// Exported: code objects, their functions, and launches.
#include <deque>
#include <mutex>

#include "common/settings.h"
#include "kernel/launch.h"
#include "platform/common/entry.h"
#include "runtime/device.h"
#include "runtime/handles.h"
#include "runtime/queue.h"

using namespace kevra_cpu;
using namespace kevra_platform;

namespace {

constexpr uint64_t largest_block = 1024;

// A kernel as loaded for one device, and for no other.
struct Function {
  const Kernel* kernel;
  int device;
};

// Modules are never unloaded: functions stay valid to the end of the process.
struct Module {
  CodeObject* object;
  int device;
  std::mutex mutex;
  std::deque<Function> functions;
};

Function* function_of(Module& module, const char* name) {
  Kernel* kernel = find_kernel(module.object, name);
  if (!kernel) return nullptr;
  const std::lock_guard lock(module.mutex);
  for (Function& known : module.functions) {
    if (known.kernel == kernel) return &known;
  }
  return &module.functions.emplace_back(Function{kernel, module.device});
}

int check_shape(Dim3 grid, Dim3 block, size_t shared_bytes) {
  if (grid.x == 0 || grid.y == 0 || grid.z == 0) return invalid_value;
  if (block.x == 0 || block.y == 0 || block.z == 0) return invalid_value;
  // Each extent on its own first: the product of three could wrap around.
  if (block.x > largest_block || block.y > largest_block || block.z > largest_block)
    return invalid_value;
  if (uint64_t{block.x} * block.y * block.z > largest_block) return invalid_value;
  return shared_bytes <= settings().shared_limit ? success : invalid_value;
}

}  // namespace

KEVRA_HIP_EXPORT int hipModuleLoadData(void** out, const void* image) {
  return entry("hipModuleLoadData", [&]() -> int {
    if (!out || !image) return invalid_value;
    const Device* device = current_device();
    if (!device) return no_device;
    auto module = std::make_shared<Module>();
    if (const int refused = load_code_object(image, &module->object)) return refused;
    module->device = device->index;
    *out = HandleTable<Module>::instance().insert(std::move(module));
    return success;
  });
}

KEVRA_HIP_EXPORT int hipModuleGetFunction(void** out, void* handle, const char* name) {
  return entry("hipModuleGetFunction", [&]() -> int {
    if (!out || !name) return invalid_value;
    const auto module = HandleTable<Module>::instance().find(handle);
    if (!module) return invalid_handle;
    Function* function = function_of(*module, name);
    if (!function) return not_found;
    *out = function;
    return success;
  });
}

KEVRA_HIP_EXPORT int hipModuleLaunchKernel(void* handle, unsigned grid_x, unsigned grid_y,
                                           unsigned grid_z, unsigned block_x, unsigned block_y,
                                           unsigned block_z, unsigned shared_bytes, void* stream,
                                           void** arguments, void** extra) {
  return entry("hipModuleLaunchKernel", [&]() -> int {
    if (!handle) return invalid_handle;
    if (extra) return invalid_value;  // a packed argument buffer is not taken
    const auto& function = *static_cast<const Function*>(handle);
    const Dim3 grid{grid_x, grid_y, grid_z};
    const Dim3 block{block_x, block_y, block_z};
    if (const int refused = check_shape(grid, block, shared_bytes)) return refused;
    if (settings().null_launches) return success;
    return on_stream(stream, [&](const auto& queue) -> int {
      if (function.device != queue->device) return invalid_device;
      enqueue(*queue,
              pack_launch(function.kernel, grid, block, shared_bytes, arguments, queue->device));
      return success;
    });
  });
}
