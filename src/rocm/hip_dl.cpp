#include "rocm/hip_dl.h"

#include <dlfcn.h>
#include <link.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string_view>

#include "environment.h"

namespace kevra::hip_dl {
namespace {

constexpr const char* kHipNames[] = {"libamdhip64.so.7", "libamdhip64.so.6", "libamdhip64.so"};
constexpr const char* kHiprtcNames[] = {"libhiprtc.so.7", "libhiprtc.so.6", "libhiprtc.so"};

// Fills one table entry after another and remembers the first name that is missing.
struct Binder {
  void* handle;
  const char* missing = nullptr;

  template <class F>
  void operator()(F*& entry, const char* name) {
    entry = reinterpret_cast<F*>(dlsym(handle, name));
    if (entry == nullptr && missing == nullptr) missing = name;
  }
};

const char* fill(void* handle, Table& t) {
  Binder bind{handle};
  bind(t.DeviceGetAttribute, "hipDeviceGetAttribute");
  bind(t.DeviceSynchronize, "hipDeviceSynchronize");
  bind(t.EventCreate, "hipEventCreate");
  bind(t.EventDestroy, "hipEventDestroy");
  bind(t.EventElapsedTime, "hipEventElapsedTime");
  bind(t.EventRecord, "hipEventRecord");
  bind(t.Free, "hipFree");
  bind(t.GetDevice, "hipGetDevice");
  bind(t.GetDeviceCount, "hipGetDeviceCount");
  bind(t.GetDevicePropertiesR0600, "hipGetDevicePropertiesR0600");
  bind(t.GetErrorString, "hipGetErrorString");
  bind(t.GraphDestroy, "hipGraphDestroy");
  bind(t.GraphExecDestroy, "hipGraphExecDestroy");
  bind(t.GraphInstantiate, "hipGraphInstantiate");
  bind(t.GraphLaunch, "hipGraphLaunch");
  bind(t.HostFree, "hipHostFree");
  bind(t.HostMalloc, "hipHostMalloc");
  bind(t.Init, "hipInit");
  bind(t.Malloc, "hipMalloc");
  bind(t.MemcpyDtoDAsync, "hipMemcpyDtoDAsync");
  bind(t.MemcpyDtoH, "hipMemcpyDtoH");
  bind(t.MemcpyHtoD, "hipMemcpyHtoD");
  bind(t.MemcpyHtoDAsync, "hipMemcpyHtoDAsync");
  bind(t.MemcpyParam2DAsync, "hipMemcpyParam2DAsync");
  bind(t.MemsetD8, "hipMemsetD8");
  bind(t.MemsetD8Async, "hipMemsetD8Async");
  bind(t.ModuleGetFunction, "hipModuleGetFunction");
  bind(t.ModuleLaunchKernel, "hipModuleLaunchKernel");
  bind(t.ModuleLoadData, "hipModuleLoadData");
  bind(t.SetDevice, "hipSetDevice");
  bind(t.StreamBeginCapture, "hipStreamBeginCapture");
  bind(t.StreamCreateWithFlags, "hipStreamCreateWithFlags");
  bind(t.StreamDestroy, "hipStreamDestroy");
  bind(t.StreamEndCapture, "hipStreamEndCapture");
  bind(t.StreamSynchronize, "hipStreamSynchronize");
  bind(t.StreamWaitEvent, "hipStreamWaitEvent");
  return bind.missing;
}

const char* fill(void* handle, RtcTable& t) {
  Binder bind{handle};
  bind(t.Version, "hiprtcVersion");
  bind(t.GetErrorString, "hiprtcGetErrorString");
  bind(t.CreateProgram, "hiprtcCreateProgram");
  bind(t.DestroyProgram, "hiprtcDestroyProgram");
  bind(t.CompileProgram, "hiprtcCompileProgram");
  bind(t.GetProgramLogSize, "hiprtcGetProgramLogSize");
  bind(t.GetProgramLog, "hiprtcGetProgramLog");
  bind(t.GetCodeSize, "hiprtcGetCodeSize");
  bind(t.GetCode, "hiprtcGetCode");
  return bind.missing;
}

// The file that `symbol` was loaded from.
std::string file_of(const void* symbol) {
  Dl_info info{};
  return dladdr(symbol, &info) != 0 && info.dli_fname != nullptr ? info.dli_fname : "";
}

std::string folder_of(const std::string& file) {
  const size_t slash = file.rfind('/');
  return slash == std::string::npos ? "." : file.substr(0, slash);
}

std::mutex report_mutex;  // guards `report` alone; nothing else is locked under it
SearchReport& report() {
  static auto* instance = new SearchReport;
  return *instance;
}

// Tries candidates in turn and notes what came of each.
struct HipSearch {
  Table& table;
  std::vector<SearchStep> steps;
  bool found = false;

  void attempt(const char* candidate, const char* from, int flags) {
    if (found) return;
    const std::string label = std::string(candidate) + " (" + from + ")";
    void* handle = dlopen(candidate, RTLD_NOW | RTLD_LOCAL | flags);
    if (handle == nullptr) {
      const char* reason = (flags & RTLD_NOLOAD) != 0 ? nullptr : dlerror();
      steps.push_back({label, reason != nullptr ? reason : "not loaded"});
      return;
    }
    // A library that lacks a name stays loaded: closing it could pull it from under others.
    const char* missing = fill(handle, table);
    found = missing == nullptr;
    steps.push_back({label, found ? "used" : std::string("lacks ") + missing});
  }
};

std::mutex rtc_mutex;
RtcTable rtc_table;
bool rtc_filled = false;

bool bind_rtc(const char* path, int flags, RtcTable& scratch) {
  void* handle = dlopen(path, RTLD_NOW | RTLD_LOCAL | flags);
  return handle != nullptr && fill(handle, scratch) == nullptr;
}

// The loaded modules whose file name begins with libhiprtc, the builtins library apart.
std::vector<std::string> loaded_hiprtc_modules() {
  std::vector<std::string> paths;
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* found) {
        const std::string_view path = info->dlpi_name;
        const std::string_view name = path.substr(path.rfind('/') + 1);
        if (name.starts_with("libhiprtc") && !name.starts_with("libhiprtc-builtins")) {
          static_cast<std::vector<std::string>*>(found)->emplace_back(path);
        }
        return 0;
      },
      &paths);
  return paths;
}

bool find_rtc(RtcTable& scratch) {
  if (auto path = environment::hiprtc_path(); path && bind_rtc(path->c_str(), 0, scratch)) {
    return true;
  }
  for (const std::string& path : loaded_hiprtc_modules()) {
    if (bind_rtc(path.c_str(), RTLD_NOLOAD, scratch)) return true;
  }
  // A HIP library need not bring hipRTC along on Linux: look beside it, then where the loader
  // looks.
  Table hip{};
  if (probe(hip)) {
    const std::string folder = folder_of(file_of(reinterpret_cast<void*>(hip.Init)));
    for (const char* name : kHiprtcNames) {
      if (bind_rtc((folder + "/" + name).c_str(), 0, scratch)) return true;
    }
  }
  for (const char* name : kHiprtcNames) {
    if (bind_rtc(name, 0, scratch)) return true;
  }
  return false;
}

}  // namespace

bool probe(Table& scratch) {
  HipSearch search{scratch, {}};
  for (const char* name : kHipNames) search.attempt(name, "already in the process", RTLD_NOLOAD);
  if (auto path = environment::hip_path()) search.attempt(path->c_str(), "KEVRA_HIP_PATH", 0);
  for (const char* name : kHipNames) search.attempt(name, "the loader's search", 0);

  // Later searches find the library of the first one in the process already: keep its story.
  std::lock_guard lock(report_mutex);
  if (report().library.empty()) {
    report().steps = std::move(search.steps);
    if (search.found) report().library = file_of(reinterpret_cast<void*>(scratch.Init));
  }
  return search.found;
}

const Table& api() {
  static Table table;
  static std::mutex mutex;
  static std::atomic<bool> filled{false};
  if (filled.load(std::memory_order_acquire)) [[likely]]
    return table;

  std::lock_guard lock(mutex);
  if (filled.load(std::memory_order_relaxed)) return table;
  Table scratch{};
  if (!probe(scratch)) {
    throw std::runtime_error(
        "kevra: no usable HIP runtime (libamdhip64). Install the rocm-sdk wheels (pip install "
        "kevra[rocm]), a system ROCm, or set KEVRA_HIP_PATH to the library.");
  }
  table = scratch;
  filled.store(true, std::memory_order_release);
  return table;
}

const RtcTable* rtc_api() {
  std::lock_guard lock(rtc_mutex);
  if (rtc_filled) return &rtc_table;
  RtcTable scratch{};
  if (!find_rtc(scratch)) return nullptr;
  rtc_table = scratch;
  rtc_filled = true;
  std::lock_guard report_lock(report_mutex);
  report().hiprtc = file_of(reinterpret_cast<void*>(rtc_table.Version));
  return &rtc_table;
}

SearchReport search_report() {
  std::lock_guard lock(report_mutex);
  return report();
}

}  // namespace kevra::hip_dl
