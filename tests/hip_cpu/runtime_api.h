// The runtime library as its callers see it: opened by path, names bound one by one.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace hip {

inline void* open_library(const char* path) {
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    std::fprintf(stderr, "%s\n", dlerror());
    std::abort();
  }
  return library;
}

template <typename Function>
Function* bind(const char* path, const char* name) {
  void* address = dlsym(open_library(path), name);
  if (!address) {
    std::fprintf(stderr, "%s has no %s\n", path, name);
    std::abort();
  }
  return reinterpret_cast<Function*>(address);
}

#define BIND(name, ...) \
  inline auto* const name = bind<int(__VA_ARGS__)>(HIP_CPU_LIBRARY, "hip" #name)

BIND(DeviceGetAttribute, int*, int, int);
BIND(DeviceSynchronize);
BIND(EventCreate, void**);
BIND(EventDestroy, void*);
BIND(EventElapsedTime, float*, void*, void*);
BIND(EventRecord, void*, void*);
BIND(Free, void*);
BIND(GetDevice, int*);
BIND(GetDeviceCount, int*);
BIND(GetDevicePropertiesR0600, void*, int);
BIND(GraphDestroy, void*);
BIND(GraphExecDestroy, void*);
BIND(GraphInstantiate, void**, void*, void**, char*, size_t);
BIND(GraphLaunch, void*, void*);
BIND(HostFree, void*);
BIND(HostMalloc, void**, size_t, unsigned);
BIND(Init, unsigned);
BIND(Malloc, void**, size_t);
BIND(MemcpyDtoDAsync, void*, void*, size_t, void*);
BIND(MemcpyDtoH, void*, void*, size_t);
BIND(MemcpyHtoD, void*, const void*, size_t);
BIND(MemcpyHtoDAsync, void*, const void*, size_t, void*);
BIND(MemcpyParam2DAsync, const void*, void*);
BIND(MemsetD8, void*, unsigned char, size_t);
BIND(MemsetD8Async, void*, unsigned char, size_t, void*);
BIND(ModuleGetFunction, void**, void*, const char*);
BIND(ModuleLaunchKernel, void*, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned,
     unsigned, void*, void**, void**);
BIND(ModuleLoadData, void**, const void*);
BIND(SetDevice, int);
BIND(StreamBeginCapture, void*, int);
BIND(StreamCreateWithFlags, void**, unsigned);
BIND(StreamDestroy, void*);
BIND(StreamEndCapture, void*, void**);
BIND(StreamSynchronize, void*);
BIND(StreamWaitEvent, void*, void*, unsigned);
#undef BIND

inline auto* const GetErrorString = bind<const char*(int)>(HIP_CPU_LIBRARY, "hipGetErrorString");

constexpr unsigned blocking = 0, non_blocking = 1;

// The kernels of these tests. `hold` keeps its stream busy until the host opens the gate;
// `broken` has a barrier that only one thread reaches.
inline const char* const kernel_text = R"(
extern "C" __global__ void hold(volatile int* gate, long long value) {
  while (*gate < value) {}
}
extern "C" __global__ void append(int* list, long long value) {
  list[0] += 1;
  list[list[0]] = (int)value;
}
extern "C" __global__ void broken(int* list, long long value) {
  if (threadIdx.x == 0) __syncthreads();
  list[0] += (int)value;
}
)";

inline std::string compile(const char* text) {
  const char* const rtc = HIP_CPU_RTC_LIBRARY;
  void* program = nullptr;
  auto* create = bind<int(void**, const char*, const char*, int, const char**, const char**)>(
      rtc, "hiprtcCreateProgram");
  EXPECT_EQ(create(&program, text, "test.hip", 0, nullptr, nullptr), 0);
  EXPECT_EQ(bind<int(void*, int, const char**)>(rtc, "hiprtcCompileProgram")(program, 0, nullptr),
            0);
  size_t bytes = 0;
  EXPECT_EQ(bind<int(void*, size_t*)>(rtc, "hiprtcGetCodeSize")(program, &bytes), 0);
  std::string code(bytes, '\0');
  EXPECT_EQ(bind<int(void*, char*)>(rtc, "hiprtcGetCode")(program, code.data()), 0);
  EXPECT_EQ(bind<int(void**)>(rtc, "hiprtcDestroyProgram")(&program), 0);
  return code;
}

inline const std::string& code_object() {
  static const std::string code = compile(kernel_text);
  return code;
}

// A kernel of `kernel_text`, loaded for the current device.
inline void* load(const char* name) {
  void *module = nullptr, *function = nullptr;
  EXPECT_EQ(ModuleLoadData(&module, code_object().data()), 0);
  EXPECT_EQ(ModuleGetFunction(&function, module, name), 0) << name;
  return function;
}

inline int launch(void* function, int* list, long long value, void* stream, unsigned threads = 1) {
  void* arguments[] = {&list, &value};
  return ModuleLaunchKernel(function, 1, 1, 1, threads, 1, 1, 0, stream, arguments, nullptr);
}

// Pinned integers, zero at first, that host and device share.
class Shared {
 public:
  explicit Shared(size_t count = 256) {
    EXPECT_EQ(HostMalloc(reinterpret_cast<void**>(&values_), count * sizeof(int), 0), 0);
    std::memset(values_, 0, count * sizeof(int));
  }
  ~Shared() { HostFree(values_); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  int* get() const { return values_; }
  int read(size_t i) const { return __atomic_load_n(values_ + i, __ATOMIC_ACQUIRE); }
  void open(int value = 1) { __atomic_store_n(values_, value, __ATOMIC_RELEASE); }
  // What the kernel `append` has put behind the count.
  std::vector<int> list() const { return {values_ + 1, values_ + 1 + values_[0]}; }

 private:
  int* values_ = nullptr;
};

// What `hold` waits at. Declared behind all that is freed after it: it opens at the end, so
// that a failed case does not hang.
class Gate : public Shared {
 public:
  ~Gate() { open(); }
};

inline void* new_stream(unsigned flags) {
  void* stream = nullptr;
  EXPECT_EQ(StreamCreateWithFlags(&stream, flags), 0);
  return stream;
}

inline void* new_event() {
  void* event = nullptr;
  EXPECT_EQ(EventCreate(&event), 0);
  return event;
}

template <typename Condition>
bool within_seconds(double seconds, Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    usleep(1000);
  }
  return true;
}

// The switches are read once a process: a case that needs some runs itself again as a child
// with them, and without those that the whole run was started with. True in the child, where
// the case goes on; false in the parent, which has checked that the child passed and left its
// output in `output`.
using Environment = std::vector<std::pair<const char*, const char*>>;

inline bool in_child_with(const Environment& environment, std::string* output = nullptr) {
  if (std::getenv("KEVRA_TEST_CHILD")) return true;
  const auto* self = testing::UnitTest::GetInstance()->current_test_info();
  std::string command = "env -u KEVRA_CPU_ORDER -u KEVRA_CPU_CHECK KEVRA_TEST_CHILD=1 ";
  for (const auto& [name, value] : environment) {
    command += std::string(name) + "='" + value + "' ";
  }
  char path[4096] = {};
  EXPECT_GT(readlink("/proc/self/exe", path, sizeof path - 1), 0);
  command += std::string("'") + path + "' --gtest_filter=" + self->test_suite_name() + "." +
             self->name() + " 2>&1";
  FILE* pipe = popen(command.c_str(), "r");
  std::string text;
  for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) text += static_cast<char>(c);
  const int status = pclose(pipe);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command << "\n" << text;
  if (output) *output = text;
  return false;
}

}  // namespace hip
