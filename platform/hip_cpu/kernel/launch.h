// From a code object to blocks that run: what the HIP surface (runtime/) asks of the
// kernel side (kernel/). Status values are HIP error codes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kevra_cpu {

class CodeObject;  // a loaded code object; never unloaded
class Kernel;      // one function of it; the pointer is the function's handle

struct Dim3 {
  uint32_t x = 1, y = 1, z = 1;
};

// `image` is what hipModuleLoadData received: no length comes with it. 0, or 200 (not an
// image of ours, or damaged), or 209 (made for another processor, mode or version).
int load_code_object(const void* image, CodeObject** out);

// The kernel of that name, the same pointer at every call; null when there is none.
Kernel* find_kernel(CodeObject* object, const char* name);

struct Launch {
  const Kernel* kernel = nullptr;
  Dim3 grid, block;
  size_t shared_bytes = 0;
  std::vector<std::byte> arguments;  // packed copies, so the caller's array may go
  int device = 0;
};

// Copies the argument values out of the caller's pointer array.
Launch pack_launch(const Kernel* kernel, Dim3 grid, Dim3 block, size_t shared_bytes,
                   void* const* arguments, int device);

// Runs every block over the worker threads, the calling thread among them, and returns when
// all are done: 0, or 719 with `report` saying kernel, block and cause in one line. Several
// streams may call at once.
int run_launch(const Launch& launch, std::string& report);

}  // namespace kevra_cpu
