// Exported: allocation, copies and fills.
#include "runtime/on_device.h"

using namespace kevra_cuda;
using namespace kevra_platform;

namespace {

Address address(const void* p) {
  return reinterpret_cast<Address>(p);
}

// HIP has a type for memory that the runtime does not know, which is the host's, and another
// number for managed memory.
uint32_t driver_memory_type(uint32_t type) {
  return type == memory_unregistered ? memory_host : type == memory_managed ? memory_unified : type;
}

}  // namespace

KEVRA_HIP_EXPORT int hipMalloc(void** out, size_t bytes) {
  return on_device("hipMalloc", [&](const Driver& cuda) -> int {
    if (!out) return invalid_value;
    Address block = 0;
    const int failed = bytes == 0 ? success : cuda.cuMemAlloc_v2(&block, bytes);
    *out = failed ? nullptr : reinterpret_cast<void*>(block);
    return failed;
  });
}

KEVRA_HIP_EXPORT int hipFree(void* p) {
  return on_device("hipFree", [&](const Driver& cuda) -> int {
    return p ? cuda.cuMemFree_v2(address(p)) : success;
  });
}

// Good on every device of the process.
KEVRA_HIP_EXPORT int hipHostMalloc(void** out, size_t bytes, unsigned /*flags*/) {
  return on_device("hipHostMalloc", [&](const Driver& cuda) -> int {
    if (!out) return invalid_value;
    *out = nullptr;
    return bytes == 0 ? success : cuda.cuMemHostAlloc(out, bytes, pinned_portable_mapped);
  });
}

KEVRA_HIP_EXPORT int hipHostFree(void* p) {
  return on_device("hipHostFree",
                   [&](const Driver& cuda) -> int { return p ? cuda.cuMemFreeHost(p) : success; });
}

KEVRA_HIP_EXPORT int hipMemcpyHtoD(void* destination, const void* source, size_t bytes) {
  return on_device("hipMemcpyHtoD", [&](const Driver& cuda) {
    return cuda.cuMemcpyHtoD_v2(address(destination), source, bytes);
  });
}

KEVRA_HIP_EXPORT int hipMemcpyDtoH(void* destination, const void* source, size_t bytes) {
  return on_device("hipMemcpyDtoH", [&](const Driver& cuda) {
    return cuda.cuMemcpyDtoH_v2(destination, address(source), bytes);
  });
}

KEVRA_HIP_EXPORT int hipMemcpyHtoDAsync(void* destination, const void* source, size_t bytes,
                                        void* stream) {
  return on_device("hipMemcpyHtoDAsync", [&](const Driver& cuda) {
    return cuda.cuMemcpyHtoDAsync_v2(address(destination), source, bytes, stream);
  });
}

KEVRA_HIP_EXPORT int hipMemcpyDtoDAsync(void* destination, const void* source, size_t bytes,
                                        void* stream) {
  return on_device("hipMemcpyDtoDAsync", [&](const Driver& cuda) {
    return cuda.cuMemcpyDtoDAsync_v2(address(destination), address(source), bytes, stream);
  });
}

// The two records have one layout.
KEVRA_HIP_EXPORT int hipMemcpyParam2DAsync(const Copy2DRecord* record, void* stream) {
  return on_device("hipMemcpyParam2DAsync", [&](const Driver& cuda) -> int {
    if (!record) return invalid_value;
    if (record->width_bytes == 0 || record->height == 0) return success;
    Copy2DRecord copy = *record;
    copy.source.memory_type = driver_memory_type(copy.source.memory_type);
    copy.destination.memory_type = driver_memory_type(copy.destination.memory_type);
    return cuda.cuMemcpy2DAsync_v2(&copy, stream);
  });
}

KEVRA_HIP_EXPORT int hipMemsetD8(void* destination, unsigned char value, size_t bytes) {
  return on_device("hipMemsetD8", [&](const Driver& cuda) {
    return cuda.cuMemsetD8_v2(address(destination), value, bytes);
  });
}

KEVRA_HIP_EXPORT int hipMemsetD8Async(void* destination, unsigned char value, size_t bytes,
                                      void* stream) {
  return on_device("hipMemsetD8Async", [&](const Driver& cuda) {
    return cuda.cuMemsetD8Async(address(destination), value, bytes, stream);
  });
}
