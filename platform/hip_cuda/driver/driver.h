// The CUDA driver's own interface, as far as it is used: bound by name from libcuda.so.1 while the
// process runs, so that the device builds and loads on machines without it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "driver/library.h"
#include "platform/common/abi.h"

namespace kevra_cuda {

using Address = uintptr_t;  // of device memory

// Numbers of the driver's queries.
enum DeviceQuery : int {
  query_warp_size = 10,
  query_multiprocessors = 16,
  query_l2_cache_bytes = 38,
  query_capability_major = 75,
  query_capability_minor = 76,
  query_shared_bytes_opt_in = 97,
};
enum FunctionQuery : int { query_static_shared_bytes = 1, query_largest_dynamic_shared = 8 };
constexpr uint32_t memory_unified = 4;  // of a 2-D copy, where HIP has 3 for managed memory
constexpr unsigned pinned_portable_mapped = 3;

// name, parameters. Every function returns a code; 0 is success.
#define KEVRA_CUDA_DRIVER(FUNCTION)                                                               \
  FUNCTION(cuInit, unsigned flags)                                                                \
  FUNCTION(cuGetErrorString, int code, const char** text)                                         \
  FUNCTION(cuDeviceGetCount, int* count)                                                          \
  FUNCTION(cuDeviceGet, int* device, int index)                                                   \
  FUNCTION(cuDeviceGetName, char* name, int bytes, int device)                                    \
  FUNCTION(cuDeviceTotalMem_v2, size_t* bytes, int device)                                        \
  FUNCTION(cuDeviceGetAttribute, int* value, int query, int device)                               \
  FUNCTION(cuDevicePrimaryCtxRetain, void** context, int device)                                  \
  FUNCTION(cuCtxSetCurrent, void* context)                                                        \
  FUNCTION(cuCtxGetDevice, int* device)                                                           \
  FUNCTION(cuCtxSynchronize)                                                                      \
  FUNCTION(cuMemAlloc_v2, Address* out, size_t bytes)                                             \
  FUNCTION(cuMemFree_v2, Address address)                                                         \
  FUNCTION(cuMemHostAlloc, void** out, size_t bytes, unsigned flags)                              \
  FUNCTION(cuMemFreeHost, void* address)                                                          \
  FUNCTION(cuMemcpyHtoD_v2, Address destination, const void* source, size_t bytes)                \
  FUNCTION(cuMemcpyDtoH_v2, void* destination, Address source, size_t bytes)                      \
  FUNCTION(cuMemcpyHtoDAsync_v2, Address destination, const void* source, size_t bytes,           \
           void* stream)                                                                          \
  FUNCTION(cuMemcpyDtoDAsync_v2, Address destination, Address source, size_t bytes, void* stream) \
  FUNCTION(cuMemcpy2DAsync_v2, const kevra_platform::Copy2DRecord* record, void* stream)          \
  FUNCTION(cuMemsetD8_v2, Address destination, unsigned char value, size_t bytes)                 \
  FUNCTION(cuMemsetD8Async, Address destination, unsigned char value, size_t bytes, void* stream) \
  FUNCTION(cuModuleLoadData, void** module, const void* image)                                    \
  FUNCTION(cuModuleGetFunction, void** function, void* module, const char* name)                  \
  FUNCTION(cuFuncGetAttribute, int* value, int query, void* function)                             \
  FUNCTION(cuFuncSetAttribute, void* function, int query, int value)                              \
  FUNCTION(cuLaunchKernel, void* function, unsigned grid_x, unsigned grid_y, unsigned grid_z,     \
           unsigned block_x, unsigned block_y, unsigned block_z, unsigned shared_bytes,           \
           void* stream, void** arguments, void** extra)                                          \
  FUNCTION(cuStreamCreate, void** stream, unsigned flags)                                         \
  FUNCTION(cuStreamDestroy_v2, void* stream)                                                      \
  FUNCTION(cuStreamSynchronize, void* stream)                                                     \
  FUNCTION(cuStreamWaitEvent, void* stream, void* event, unsigned flags)                          \
  FUNCTION(cuStreamBeginCapture_v2, void* stream, int mode)                                       \
  FUNCTION(cuStreamEndCapture, void* stream, void** graph)                                        \
  FUNCTION(cuGraphInstantiateWithFlags, void** executable, void* graph, unsigned long long flags) \
  FUNCTION(cuGraphLaunch, void* executable, void* stream)                                         \
  FUNCTION(cuGraphDestroy, void* graph)                                                           \
  FUNCTION(cuGraphExecDestroy, void* executable)                                                  \
  FUNCTION(cuEventCreate, void** event, unsigned flags)                                           \
  FUNCTION(cuEventDestroy_v2, void* event)                                                        \
  FUNCTION(cuEventRecord, void* event, void* stream)                                              \
  FUNCTION(cuEventElapsedTime, float* milliseconds, void* start, void* stop)

KEVRA_CUDA_TABLE(Driver, KEVRA_CUDA_DRIVER)

// The initialised driver, or null: then start_failure() is the code why, and start_text() the
// words for it. Looked for once a process.
const Driver* driver();
int start_failure();
const char* start_text();

}  // namespace kevra_cuda
