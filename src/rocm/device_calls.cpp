// The neutral calls of cuda_like/device.h as thin calls of the HIP table.
#include <cstdint>

#include "cuda_like/device.h"
#include "rocm/hip_dl.h"

namespace kevra {
namespace {

using hip_dl::api;

constexpr uint32_t kMemoryHost = 1;
constexpr uint32_t kMemoryDevice = 2;

// The platform's record of a 2-D copy, 128 bytes, in its own field order.
struct SideRecord {
  size_t x_bytes, y;
  uint32_t memory_type;
  void* host;
  void* device;
  void* array;
  size_t pitch;
};
struct Copy2DRecord {
  SideRecord src, dst;
  size_t width_bytes, height;
};
static_assert(sizeof(Copy2DRecord) == 128);

SideRecord side_record(const CopySide& side) {
  const bool on_device = side.memory == static_cast<int>(kMemoryDevice);
  return {.x_bytes = side.x_bytes,
          .y = side.y,
          .memory_type = on_device ? kMemoryDevice : kMemoryHost,
          .host = on_device ? nullptr : side.address,
          .device = on_device ? side.address : nullptr,
          .array = nullptr,
          .pitch = side.pitch};
}

}  // namespace

int memcpyHtoD(devptr_t dst, const void* src, size_t bytes) {
  return api().MemcpyHtoD(dst, const_cast<void*>(src), bytes);
}
int memcpyDtoH(void* dst, devptr_t src, size_t bytes) {
  return api().MemcpyDtoH(dst, src, bytes);
}
int memcpyHtoDAsync(devptr_t dst, const void* src, size_t bytes, stream_t stream) {
  return api().MemcpyHtoDAsync(dst, const_cast<void*>(src), bytes, stream);
}
int memcpyDtoDAsync(devptr_t dst, devptr_t src, size_t bytes, stream_t stream) {
  return api().MemcpyDtoDAsync(dst, src, bytes, stream);
}
int memsetD8Async(devptr_t p, unsigned char value, size_t bytes, stream_t stream) {
  return api().MemsetD8Async(p, value, bytes, stream);
}
int memcpy2DAsync(const Copy2D* copy, stream_t stream) {
  const Copy2DRecord record{side_record(copy->src), side_record(copy->dst), copy->width_bytes,
                            copy->height};
  return api().MemcpyParam2DAsync(&record, stream);
}

int memAlloc(devptr_t* p, size_t bytes) {
  return api().Malloc(p, bytes);
}
int deviceSynchronize() {
  return api().DeviceSynchronize();
}
int streamSynchronize(stream_t stream) {
  return api().StreamSynchronize(stream);
}
int eventCreate(event_t* event) {
  return api().EventCreate(event);
}
int eventDestroy(event_t event) {
  return api().EventDestroy(event);
}
int eventRecord(event_t event, stream_t stream) {
  return api().EventRecord(event, stream);
}
int eventElapsedTime(float* milliseconds, event_t start, event_t stop) {
  return api().EventElapsedTime(milliseconds, start, stop);
}
int streamWaitEvent(stream_t stream, event_t event) {
  return api().StreamWaitEvent(stream, event, 0);
}
int graphLaunch(graph_exec_t graph, stream_t stream) {
  return api().GraphLaunch(graph, stream);
}

}  // namespace kevra
