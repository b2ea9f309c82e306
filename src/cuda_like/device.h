// The neutral device interface: what the operations know of the GPU. Declarations only; the
// runtime floor defines them for the platform at hand.
//
// Neutral calls answer the platform's status, 0 being success, and stand in KEVRA_CHECK, which
// turns any other status into std::runtime_error with file, line, the call's own text and the
// platform's words. Nothing here waits unless it says so.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

namespace kevra::codegen {
class Backend;
}

namespace kevra {

using stream_t = void*;  // null: the null stream
using devptr_t = void*;
using event_t = void*;
using graph_exec_t = void*;
using kernel_t = void*;  // a compiled kernel of one device

// --- Failures -----------------------------------------------------------------------------

void check_device(int status, const char* file, int line, const char* expr,
                  const char* context = nullptr);

// A macro, because the failure text holds the call's source text and place.
#define KEVRA_CHECK(call) ::kevra::check_device((call), __FILE__, __LINE__, #call)
#define KEVRA_CHECK_IN(call, context) \
  ::kevra::check_device((call), __FILE__, __LINE__, #call, context)

// --- Copies, waits, events ----------------------------------------------------------------

// These two run on the null stream and return when the bytes have arrived.
int memcpyHtoD(devptr_t dst, const void* src, size_t bytes);
int memcpyDtoH(void* dst, devptr_t src, size_t bytes);

int memcpyHtoDAsync(devptr_t dst, const void* src, size_t bytes, stream_t stream);
int memcpyDtoDAsync(devptr_t dst, devptr_t src, size_t bytes, stream_t stream);
int memsetD8Async(devptr_t p, unsigned char value, size_t bytes, stream_t stream);

// One side of a 2-D copy. `memory` 2 is device memory, every other value host memory.
struct CopySide {
  size_t x_bytes = 0;
  size_t y = 0;
  int memory = 2;
  void* address = nullptr;
  size_t pitch = 0;
};
struct Copy2D {
  CopySide src, dst;
  size_t width_bytes = 0;
  size_t height = 0;
};
int memcpy2DAsync(const Copy2D* copy, stream_t stream);

int memAlloc(devptr_t* p, size_t bytes);  // past the pool
int deviceSynchronize();
int streamSynchronize(stream_t stream);
int eventCreate(event_t* event);
int eventDestroy(event_t event);
int eventRecord(event_t event, stream_t stream);
int eventElapsedTime(float* milliseconds, event_t start, event_t stop);
int streamWaitEvent(stream_t stream, event_t event);
int graphLaunch(graph_exec_t graph, stream_t stream);

// --- Devices and kernels ------------------------------------------------------------------

// Guards the availability answer, the current device, kernel memos, device tables and hints. Taken
// first: a pool's mutex or hipRTC's may follow, never the other way round.
extern std::recursive_mutex runtime_mutex;

// The first call of every operation: makes `dev` current and returns it. Throws
// std::runtime_error "no HIP device available" where there is none.
int select_device(int dev);

// The calling thread's device; where the platform does not tell, the one selected last, or -1.
int current_device();

// Bytes of shared memory that a block may have.
int device_shared_limit(int dev);
// Throws std::invalid_argument when a block of kernel `name` would need more.
void check_shared(size_t bytes, int dev, const char* name);
// How many of a kernel's blocks or groups of blocks run side by side; 0 when the platform does not
// tell.
int device_multiprocessors(int dev);
// Bytes of the cache that all blocks share; 0 when the platform does not tell.
int device_cache_bytes(int dev);
// Threads that run in step.
int device_wave_size(int dev);

// The dialect that kernels of this platform are written in.
const codegen::Backend& backend();

// The only road from an operation to a compiled kernel. `key` must hold everything that shapes
// the text; `source` runs only when the key is new for this device in this process.
kernel_t kernel_function(const std::string& key, int dev,
                         const std::function<std::string()>& source, const char* kernel_name);
// The same for a record that makes its own key and text.
template <class Kernel>
kernel_t kernel_function(const Kernel& kernel, int dev) {
  const auto source = [&kernel] { return kernel.source(backend()); };
  if constexpr (requires { kernel.name(); }) {
    return kernel_function(kernel.key(), dev, source, kernel.name());
  } else {
    return kernel_function(kernel.key(), dev, source, Kernel::kName);
  }
}

// Queues one launch with grid (gx, gy) and one-dimensional blocks. `args` points to the arguments
// in kernel order.
void launch_kernel(kernel_t fn, unsigned gx, unsigned gy, unsigned block, size_t shared,
                   void** args, const char* name, stream_t stream);

// Records on a stream of its own, as a graph, what `work` queues on the stream that it is given,
// and replays it `times` times behind the work of `stream`. Waits for the replays and answers how
// many there were: fewer than `times`, mostly 0, where recording or replaying fails, and the caller
// goes on from there by itself. `work` may queue kernels, copies and fills within device memory,
// and have scratch from device_alloc.
int64_t replay_recorded(const std::function<void(stream_t)>& work, int64_t times, stream_t stream);

// Whether results must not depend on the order of atomic additions.
bool deterministic();

// --- Pools --------------------------------------------------------------------------------

// A device block serves again only on the stream that it is released on: its next user queues
// behind the work already there, so releasing needs no wait.
devptr_t device_alloc(size_t bytes, stream_t stream);
// For what stays until the process ends. It leaves the cached blocks alone: the call that builds a
// table has used some before and would miss them the next time.
devptr_t device_alloc_for_good(size_t bytes);
void device_free(devptr_t p, stream_t stream) noexcept;
void* pinned_alloc(size_t bytes);
void pinned_free(void* p) noexcept;

struct DeviceBuffer {
  DeviceBuffer(size_t bytes, stream_t on) : p(device_alloc(bytes, on)), stream(on) {}
  DeviceBuffer(DeviceBuffer&& other) noexcept
      : p(std::exchange(other.p, nullptr)), stream(other.stream) {}
  DeviceBuffer(const DeviceBuffer&) = delete;
  DeviceBuffer& operator=(const DeviceBuffer&) = delete;
  DeviceBuffer& operator=(DeviceBuffer&&) = delete;
  ~DeviceBuffer() { device_free(p, stream); }

  static DeviceBuffer for_good(size_t bytes) { return DeviceBuffer(device_alloc_for_good(bytes)); }

  // The caller takes over the block and owes it to device_free, or keeps it for good.
  devptr_t release() noexcept { return std::exchange(p, nullptr); }

  devptr_t p;
  stream_t stream;

 private:
  explicit DeviceBuffer(devptr_t block) : p(block), stream(nullptr) {}
};

struct PinnedBlock {
  explicit PinnedBlock(size_t bytes) : p(pinned_alloc(bytes)) {}
  PinnedBlock(PinnedBlock&& other) noexcept : p(other.release()) {}
  PinnedBlock(const PinnedBlock&) = delete;
  PinnedBlock& operator=(const PinnedBlock&) = delete;
  PinnedBlock& operator=(PinnedBlock&&) = delete;
  ~PinnedBlock() { pinned_free(p); }

  // The caller takes over the block and owes it to pinned_free.
  void* release() noexcept { return std::exchange(p, nullptr); }

  void* p;
};

}  // namespace kevra
