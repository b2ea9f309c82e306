// Kernels of a test: text in, launches and their outcome out.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "runtime_api.h"

namespace hip {

// Device memory with the host's copy of it behind: what a test writes goes there with upload(),
// what a kernel leaves comes back with download().
template <typename T>
class Buffer {
 public:
  explicit Buffer(std::vector<T> values) : values(std::move(values)) {
    EXPECT_EQ(Malloc(reinterpret_cast<void**>(&device), bytes()), 0);
    upload();
  }
  explicit Buffer(size_t count, T value = T()) : Buffer(std::vector<T>(count, value)) {}
  ~Buffer() { Free(device); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  size_t bytes() const { return values.size() * sizeof(T); }
  void upload() { EXPECT_EQ(MemcpyHtoD(device, values.data(), bytes()), 0); }
  const std::vector<T>& download() {
    EXPECT_EQ(MemcpyDtoH(values.data(), device, bytes()), 0);
    return values;
  }

  std::vector<T> values;
  T* device = nullptr;
};

struct Extent {
  unsigned x = 1, y = 1, z = 1;
};

// A loaded kernel text.
class Kernels {
 public:
  explicit Kernels(const char* text) {
    const std::string code = compile(text) + std::string(4096, '\0');
    EXPECT_EQ(ModuleLoadData(&module_, code.data()), 0);
  }

  void* function(const char* name) const {
    void* function = nullptr;
    EXPECT_EQ(ModuleGetFunction(&function, module_, name), 0) << name;
    return function;
  }

  // Runs a kernel to its end: "" or what the device reports.
  template <typename... Arguments>
  std::string run(const char* name, Extent grid, Extent block, unsigned shared_bytes,
                  Arguments... arguments) const {
    void* pointers[] = {&arguments..., nullptr};
    const int queued = ModuleLaunchKernel(function(name), grid.x, grid.y, grid.z, block.x, block.y,
                                          block.z, shared_bytes, nullptr, pointers, nullptr);
    EXPECT_EQ(queued, 0) << name;
    const int status = StreamSynchronize(nullptr);
    return status == 0 ? "" : GetErrorString(status);
  }

 private:
  void* module_ = nullptr;
};

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace hip
