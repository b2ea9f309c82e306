// Exported: allocation, copies and fills.
#include "common/settings.h"
#include "platform/common/entry.h"
#include "runtime/copies.h"
#include "runtime/device.h"
#include "runtime/memory.h"
#include "runtime/queue.h"

using namespace kevra_cpu;
using namespace kevra_platform;

namespace {

// Asynchronous copies read and write at their turn in the queue, pageable host memory
// included: the caller must leave it alone until a wait, and one who does not is found out.
int queue_copy(const Copy& copy, DeviceSides sides, void* stream) {
  return on_stream(stream, [&](const auto& queue) -> int {
    if (copy.width == 0 || copy.height == 0) return success;
    if (const int refused = check_copy(copy, sides)) return refused;
    enqueue(*queue, copy);
    return success;
  });
}

// On the null stream, and done on return.
int copy_now(const Copy& copy, DeviceSides sides) {
  return on_stream(nullptr, [&](const auto& queue) -> int {
    if (copy.width == 0) return success;
    if (const int refused = check_copy(copy, sides)) return refused;
    return finish(*queue, copy);
  });
}

int queue_fill(const Fill& fill, void* stream) {
  return on_stream(stream, [&](const auto& queue) -> int {
    if (fill.bytes == 0) return success;
    if (const int refused = check_fill(fill)) return refused;
    enqueue(*queue, fill);
    return success;
  });
}

}  // namespace

KEVRA_HIP_EXPORT int hipMalloc(void** out, size_t bytes) {
  return entry("hipMalloc", [&]() -> int {
    if (!out) return invalid_value;
    const Device* device = current_device();
    return device ? allocate_device(device->index, bytes, out) : static_cast<int>(no_device);
  });
}

// Memory in use by queued work is not pulled away: a free waits for its device.
KEVRA_HIP_EXPORT int hipFree(void* p) {
  return entry("hipFree", [&]() -> int {
    if (!p) return success;
    Allocation block;
    const auto address = reinterpret_cast<uintptr_t>(p);
    if (!find_allocation(address, &block) || block.base != address || block.pinned)
      return invalid_value;
    drain_device(block.device);
    return free_device(p);
  });
}

KEVRA_HIP_EXPORT int hipHostMalloc(void** out, size_t bytes, unsigned /*flags*/) {
  return entry("hipHostMalloc", [&]() -> int {
    if (!out) return invalid_value;
    return current_device() ? allocate_pinned(bytes, out) : static_cast<int>(no_device);
  });
}

// Pinned memory is every device's, so all of them are waited for.
KEVRA_HIP_EXPORT int hipHostFree(void* p) {
  return entry("hipHostFree", [&]() -> int {
    if (!p) return success;
    for (int device = 0; device < settings().devices; ++device) drain_device(device);
    return free_pinned(p);
  });
}

KEVRA_HIP_EXPORT int hipMemcpyHtoD(void* destination, const void* source, size_t bytes) {
  return entry("hipMemcpyHtoD", [&] {
    return copy_now(plain_copy(destination, source, bytes), {.destination = true});
  });
}

KEVRA_HIP_EXPORT int hipMemcpyDtoH(void* destination, const void* source, size_t bytes) {
  return entry("hipMemcpyDtoH",
               [&] { return copy_now(plain_copy(destination, source, bytes), {.source = true}); });
}

KEVRA_HIP_EXPORT int hipMemcpyHtoDAsync(void* destination, const void* source, size_t bytes,
                                        void* stream) {
  return entry("hipMemcpyHtoDAsync", [&] {
    return queue_copy(plain_copy(destination, source, bytes), {.destination = true}, stream);
  });
}

KEVRA_HIP_EXPORT int hipMemcpyDtoDAsync(void* destination, const void* source, size_t bytes,
                                        void* stream) {
  return entry("hipMemcpyDtoDAsync", [&] {
    return queue_copy(plain_copy(destination, source, bytes), {.destination = true, .source = true},
                      stream);
  });
}

KEVRA_HIP_EXPORT int hipMemcpyParam2DAsync(const Copy2DRecord* record, void* stream) {
  return entry("hipMemcpyParam2DAsync", [&]() -> int {
    if (!record) return invalid_value;
    Copy copy;
    DeviceSides sides;
    if (const int refused = read_copy_2d(*record, &copy, &sides)) return refused;
    return queue_copy(copy, sides, stream);
  });
}

// Towards the host this one is asynchronous too, as it is for device memory on a GPU.
KEVRA_HIP_EXPORT int hipMemsetD8(void* destination, unsigned char value, size_t bytes) {
  return entry("hipMemsetD8", [&] {
    return queue_fill({.destination = destination, .value = value, .bytes = bytes}, nullptr);
  });
}

KEVRA_HIP_EXPORT int hipMemsetD8Async(void* destination, unsigned char value, size_t bytes,
                                      void* stream) {
  return entry("hipMemsetD8Async", [&] {
    return queue_fill({.destination = destination, .value = value, .bytes = bytes}, stream);
  });
}
