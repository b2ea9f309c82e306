// The HIP runtime and hipRTC, bound by name while the process runs. No HIP header is used: the
// tables below declare what is called. Member names drop the exported name's `hip` prefix.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kevra::hip_dl {

using stream_t = void*;
using event_t = void*;
using module_t = void*;
using function_t = void*;
using graph_t = void*;
using graph_exec_t = void*;
using program_t = void*;

inline constexpr int kErrorOutOfMemory = 2;
inline constexpr int kAttributeCacheBytes = 19;
inline constexpr int kAttributeMultiprocessors = 63;
inline constexpr int kAttributeSharedPerBlock = 74;
inline constexpr int kAttributeWaveSize = 87;

struct Table {
  int (*DeviceGetAttribute)(int* value, int attribute, int device);
  int (*DeviceSynchronize)();
  int (*EventCreate)(event_t* event);
  int (*EventDestroy)(event_t event);
  int (*EventElapsedTime)(float* milliseconds, event_t start, event_t stop);
  int (*EventRecord)(event_t event, stream_t stream);
  int (*Free)(void* p);
  int (*GetDevice)(int* device);
  int (*GetDeviceCount)(int* count);
  int (*GetDevicePropertiesR0600)(void* properties, int device);
  const char* (*GetErrorString)(int error);
  int (*GraphDestroy)(graph_t graph);
  int (*GraphExecDestroy)(graph_exec_t graph);
  int (*GraphInstantiate)(graph_exec_t* out, graph_t graph, void** error_node, char* log,
                          size_t log_size);
  int (*GraphLaunch)(graph_exec_t graph, stream_t stream);
  int (*HostFree)(void* p);
  int (*HostMalloc)(void** p, size_t bytes, unsigned flags);
  int (*Init)(unsigned flags);
  int (*Malloc)(void** p, size_t bytes);
  int (*MemcpyDtoDAsync)(void* dst, void* src, size_t bytes, stream_t stream);
  int (*MemcpyDtoH)(void* dst, void* src, size_t bytes);
  int (*MemcpyHtoD)(void* dst, void* src, size_t bytes);
  int (*MemcpyHtoDAsync)(void* dst, void* src, size_t bytes, stream_t stream);
  int (*MemcpyParam2DAsync)(const void* record, stream_t stream);
  int (*MemsetD8)(void* p, unsigned char value, size_t count);
  int (*MemsetD8Async)(void* p, unsigned char value, size_t count, stream_t stream);
  int (*ModuleGetFunction)(function_t* function, module_t module, const char* name);
  int (*ModuleLaunchKernel)(function_t function, unsigned gx, unsigned gy, unsigned gz, unsigned bx,
                            unsigned by, unsigned bz, unsigned shared, stream_t stream, void** args,
                            void** extra);
  int (*ModuleLoadData)(module_t* module, const void* image);
  int (*SetDevice)(int device);
  int (*StreamBeginCapture)(stream_t stream, int mode);
  int (*StreamCreateWithFlags)(stream_t* stream, unsigned flags);
  int (*StreamDestroy)(stream_t stream);
  int (*StreamEndCapture)(stream_t stream, graph_t* graph);
  int (*StreamSynchronize)(stream_t stream);
  int (*StreamWaitEvent)(stream_t stream, event_t event, unsigned flags);
};

struct RtcTable {
  int (*Version)(int* major, int* minor);
  const char* (*GetErrorString)(int error);
  int (*CreateProgram)(program_t* program, const char* source, const char* name, int header_count,
                       const char** headers, const char** include_names);
  int (*DestroyProgram)(program_t* program);
  int (*CompileProgram)(program_t program, int option_count, const char** options);
  int (*GetProgramLogSize)(program_t program, size_t* size);
  int (*GetProgramLog)(program_t program, char* log);
  int (*GetCodeSize)(program_t program, size_t* size);
  int (*GetCode)(program_t program, char* code);
};

// The bound runtime, loaded at the first call. Throws std::runtime_error when no library on this
// machine serves; a later call tries again.
const Table& api();

// Whether api() would succeed. Binds nothing and does not throw.
bool probe(Table& scratch);

// hipRTC's table, or null when none is to be had now; a later call tries again.
const RtcTable* rtc_api();

// One library that the search for the HIP runtime looked at, and what came of it.
struct SearchStep {
  std::string candidate;
  std::string outcome;
};

// What the last searches found; empty texts where nothing was found or looked for yet. Loads
// nothing.
struct SearchReport {
  std::vector<SearchStep> steps;
  std::string library;
  std::string hiprtc;
};
SearchReport search_report();

}  // namespace kevra::hip_dl
