// A CUDA driver without a GPU: device memory is host memory, and work is done at the call. A
// launch writes what it was given where its first argument points. It refuses what the driver
// refuses: calls on a thread without a context, unknown memory types, shared memory not asked for.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#define FAKE extern "C" __attribute__((visibility("default"))) int

namespace {

constexpr int ok = 0, invalid_value = 1, out_of_memory = 2, invalid_device = 101,
              invalid_image = 200, invalid_context = 201, invalid_handle = 400, not_found = 500;
constexpr int opt_in_bytes = 227 << 10, unasked_bytes = 48 << 10, static_bytes = 1 << 10;

struct Context {
  int retained = 0;
} contexts[2];
struct Function {
  int largest_dynamic = unasked_bytes - static_bytes;
};
thread_local Context* current = nullptr;

struct Side {
  size_t x, y;
  uint32_t type;
  char *host, *device;
  void* array;
  size_t pitch;
};
struct Copy2D {
  Side source, destination;
  size_t width, height;
};

char* row(const Side& side, size_t number) {
  char* base = side.type == 1 ? side.host : side.device;
  return base + (side.y + number) * side.pitch + side.x;
}
bool known(uint32_t type) {
  return type == 1 || type == 2 || type == 4;
}

int make_handle(void** out) {
  if (!current) return invalid_context;
  *out = std::malloc(1);
  return ok;
}
int use_handle(const void* handle) {
  return !current ? invalid_context : handle ? ok : invalid_handle;
}
int copy(void* destination, const void* source, size_t bytes) {
  if (!current) return invalid_context;
  std::memcpy(destination, source, bytes);
  return ok;
}

}  // namespace

FAKE cuInit(unsigned flags) {
  return flags == 0 ? ok : invalid_value;
}
FAKE cuGetErrorString(int code, const char** text) {
  *text = code == not_found ? "the fake has no such name" : nullptr;
  return *text ? ok : invalid_value;
}

// NVRTC asks for this one by itself, and takes no for an answer.
FAKE cuGetExportTable(const void** table, const void*) {
  *table = nullptr;
  return not_found;
}

FAKE cuDeviceGetCount(int* count) {
  *count = 2;
  return ok;
}
FAKE cuDeviceGet(int* device, int index) {
  if (index < 0 || index > 1) return invalid_device;
  *device = index;
  return ok;
}
FAKE cuDeviceGetName(char* name, int bytes, int) {
  std::strncpy(name, "fake GPU", static_cast<size_t>(bytes));
  return ok;
}
FAKE cuDeviceTotalMem_v2(size_t* bytes, int) {
  *bytes = size_t{1} << 30;
  return ok;
}
FAKE cuDeviceGetAttribute(int* value, int attribute, int device) {
  const struct {
    int attribute, value;
  } known_ones[] = {{10, 32},         {16, 132},        {38, 50 << 20},
                    {75, 9 - device}, {76, 6 * device}, {97, opt_in_bytes}};
  for (const auto& one : known_ones) {
    if (one.attribute != attribute) continue;
    *value = one.value;
    return ok;
  }
  return invalid_value;
}

// Retained once a process, or the count would keep the context alive for others.
FAKE cuDevicePrimaryCtxRetain(Context** context, int device) {
  *context = &contexts[device];
  return contexts[device].retained++ == 0 ? ok : invalid_context;
}
FAKE cuCtxSetCurrent(Context* context) {
  current = context;
  return ok;
}
FAKE cuCtxGetDevice(int* device) {
  if (!current) return invalid_context;
  *device = static_cast<int>(current - contexts);
  return ok;
}
FAKE cuCtxSynchronize() {
  return current ? ok : invalid_context;
}

FAKE cuMemAlloc_v2(char** out, size_t bytes) {
  if (!current) return invalid_context;
  if (bytes == 0) return invalid_value;
  if (bytes > size_t{1} << 30) return out_of_memory;
  *out = static_cast<char*>(std::malloc(bytes));
  return ok;
}
FAKE cuMemFree_v2(char* address) {
  if (!current) return invalid_context;
  std::free(address);
  return ok;
}
FAKE cuMemHostAlloc(void** out, size_t bytes, unsigned) {
  return cuMemAlloc_v2(reinterpret_cast<char**>(out), bytes);
}
FAKE cuMemFreeHost(void* address) {
  return cuMemFree_v2(static_cast<char*>(address));
}

// A stream behind the parameters is passed over, as C's calling conventions allow.
#define FAKE_COPY(name)                                            \
  FAKE name(void* destination, const void* source, size_t bytes) { \
    return copy(destination, source, bytes);                       \
  }
FAKE_COPY(cuMemcpyHtoD_v2)
FAKE_COPY(cuMemcpyDtoH_v2)
FAKE_COPY(cuMemcpyHtoDAsync_v2)
FAKE_COPY(cuMemcpyDtoDAsync_v2)

FAKE cuMemcpy2DAsync_v2(const Copy2D* record, void*) {
  if (!known(record->source.type) || !known(record->destination.type)) return invalid_value;
  for (size_t i = 0; i < record->height; ++i)
    copy(row(record->destination, i), row(record->source, i), record->width);
  return ok;
}
FAKE cuMemsetD8_v2(void* destination, unsigned char value, size_t bytes) {
  std::memset(destination, value, bytes);
  return ok;
}
FAKE cuMemsetD8Async(void* destination, unsigned char value, size_t bytes, void*) {
  return cuMemsetD8_v2(destination, value, bytes);
}

FAKE cuModuleLoadData(void** module, const void* image) {
  return std::memcmp(image, "\177ELF", 4) == 0 ? make_handle(module) : invalid_image;
}
FAKE cuModuleGetFunction(Function** function, void*, const char* name) {
  if (std::strcmp(name, "missing") == 0) return not_found;
  *function = new Function;
  return ok;
}
FAKE cuFuncGetAttribute(int* value, int attribute, Function* function) {
  *value = attribute == 1 ? static_bytes : function->largest_dynamic;
  return ok;
}
FAKE cuFuncSetAttribute(Function* function, int attribute, int value) {
  if (attribute != 8 || value > opt_in_bytes - static_bytes) return invalid_value;
  function->largest_dynamic = value;
  return ok;
}
FAKE cuLaunchKernel(Function* function, unsigned grid_x, unsigned grid_y, unsigned grid_z,
                    unsigned block_x, unsigned block_y, unsigned block_z, unsigned shared,
                    void* stream, void** arguments, void**) {
  if (!current) return invalid_context;
  if (shared > static_cast<unsigned>(function->largest_dynamic)) return invalid_value;
  const uintptr_t told[] = {grid_x,  grid_y,  grid_z, block_x,
                            block_y, block_z, shared, reinterpret_cast<uintptr_t>(stream)};
  void* target = *static_cast<void**>(arguments[0]);
  std::memcpy(target, told, sizeof told);
  return ok;
}

#define FAKE_MAKE(name)      \
  FAKE name(void** out) {    \
    return make_handle(out); \
  }
FAKE_MAKE(cuStreamCreate)
FAKE_MAKE(cuEventCreate)

#define FAKE_USE(name)         \
  FAKE name(void* handle) {    \
    return use_handle(handle); \
  }
FAKE_USE(cuStreamDestroy_v2)
FAKE_USE(cuEventDestroy_v2)
FAKE_USE(cuEventRecord)
FAKE_USE(cuGraphLaunch)
FAKE_USE(cuGraphDestroy)
FAKE_USE(cuGraphExecDestroy)

FAKE cuStreamSynchronize(void*) {
  return cuCtxSynchronize();
}
FAKE cuStreamWaitEvent(void*, void* event, unsigned) {
  return use_handle(event);
}
FAKE cuEventElapsedTime(float* milliseconds, void* start, void* stop) {
  *milliseconds = 1.5f;
  return start && stop ? ok : invalid_handle;
}
FAKE cuStreamBeginCapture_v2(void* stream, int mode) {
  return mode == 2 ? use_handle(stream) : invalid_value;
}
FAKE cuStreamEndCapture(void*, void** graph) {
  return make_handle(graph);
}
FAKE cuGraphInstantiateWithFlags(void** executable, void* graph, unsigned long long flags) {
  return flags == 0 && graph ? make_handle(executable) : invalid_value;
}
