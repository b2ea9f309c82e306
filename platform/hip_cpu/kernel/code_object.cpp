#include "kernel/code_object.h"

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>

#include "kernel/checker.h"
#include "kernel/image.h"

namespace kevra_cpu {

namespace {

constexpr int invalid_image = 200;

// A path to the descriptor that no other load has used: the dynamic loader takes an object whose
// path it has seen for the same object, and descriptors are used again. "/." and "//" change a
// path's text and not its meaning, so they spell out a serial number.
std::string unique_path(int descriptor) {
  static std::atomic<uint32_t> serial{0};
  std::string path = "/proc/self/fd";
  for (uint32_t digits = ++serial; digits != 0; digits >>= 1) path += digits & 1 ? "/." : "//";
  return path + "/" + std::to_string(descriptor);
}

bool write_all(int descriptor, const std::vector<std::byte>& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t wrote = write(descriptor, bytes.data() + done, bytes.size() - done);
    if (wrote <= 0) return false;
    done += static_cast<size_t>(wrote);
  }
  return true;
}

// Loads a shared object from memory; null when the loader refuses it.
void* load_library(const std::vector<std::byte>& elf) {
  const int descriptor = memfd_create("kevra-kernel", MFD_CLOEXEC);
  if (descriptor < 0) return nullptr;
  void* library = nullptr;
  if (write_all(descriptor, elf))
    library = dlopen(unique_path(descriptor).c_str(), RTLD_NOW | RTLD_LOCAL);
  close(descriptor);
  return library;
}

}  // namespace

CodeObject::CodeObject(const kevra_cpu_device::KernelTable& table) {
  for (const auto* entry = table.begin; entry != table.end; ++entry)
    kernels_.emplace_back(entry, this);
  if (table.hooks != nullptr) *table.hooks = check_hooks();
}

Kernel* CodeObject::find(const char* name) {
  for (Kernel& kernel : kernels_)
    if (std::strcmp(kernel.entry().name, name) == 0) return &kernel;
  return nullptr;
}

int load_code_object(const void* image, CodeObject** out) {
  std::vector<std::byte> elf;
  if (const int code = open_image(image, &elf)) return code;
  void* library = load_library(elf);
  if (library == nullptr) return invalid_image;
  const void* table = dlsym(library, "kevra_kernel_table");
  if (table == nullptr) return invalid_image;

  // Code objects stay until the process ends, and reachable for whoever looks for leaks.
  static std::mutex mutex;
  static auto* const loaded = new std::deque<CodeObject>;
  const std::lock_guard lock(mutex);
  *out = &loaded->emplace_back(*static_cast<const kevra_cpu_device::KernelTable*>(table));
  return 0;
}

Kernel* find_kernel(CodeObject* object, const char* name) {
  return object->find(name);
}

}  // namespace kevra_cpu
