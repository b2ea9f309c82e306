#include "kernel/code_object.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "common/settings.h"
#include "kernel/architecture.h"
#include "kernel/checker.h"
#include "kernel/memory_file.h"
#include "platform/common/abi.h"
#include "platform/common/image.h"

namespace kevra_cpu {

namespace {

// A path to the descriptor that no other load has used: the dynamic loader takes an object whose
// path it has seen for the same object, and descriptors are used again. "/." and "//" change a
// path's text and not its meaning, so they spell out a serial number.
std::string unique_path(int descriptor) {
  static std::atomic<uint32_t> serial{0};
  std::string path = "/proc/self/fd";
  for (uint32_t digits = ++serial; digits != 0; digits >>= 1) path += digits & 1 ? "/." : "//";
  return path + "/" + std::to_string(descriptor);
}

// Loads a shared object from memory; null when the loader refuses it.
void* load_library(const std::vector<std::byte>& elf) {
  const MemoryFile file("kevra-kernel");
  if (!file.write(elf)) return nullptr;
  return dlopen(unique_path(file.descriptor()).c_str(), RTLD_NOW | RTLD_LOCAL);
}

const kevra_cpu_device::LaneEntry* lane_entry(const kevra_cpu_device::KernelTable& table,
                                              const char* name) {
  for (const auto* entry = table.lanes_begin; entry != table.lanes_end; ++entry)
    if (std::strcmp(entry->name, name) == 0) return entry;
  return nullptr;
}

}  // namespace

CodeObject::CodeObject(std::vector<std::byte> elf, const kevra_cpu_device::KernelTable& table)
    : elf_(std::move(elf)), lane_hooks_(table.lane_hooks) {
  for (const auto* entry = table.begin; entry != table.end; ++entry)
    kernels_.emplace_back(entry, lane_entry(table, entry->name), this);
  if (lane_hooks_ != nullptr) *lane_hooks_ = kevra_cpu::lane_hooks();
  if (table.hooks != nullptr) *table.hooks = check_hooks();
}

Kernel* CodeObject::find(const char* name) {
  for (Kernel& kernel : kernels_)
    if (std::strcmp(kernel.entry().name, name) == 0) return &kernel;
  return nullptr;
}

namespace {

// Code objects stay until the process ends, and reachable for whoever looks for leaks.
struct LoadedObjects {
  std::mutex mutex;
  std::deque<CodeObject> objects;

  static LoadedObjects& all() {
    static auto& loaded = *new LoadedObjects;
    return loaded;
  }
};

// What KEVRA_DEBUG tells when the process ends, a line for each kernel that ran.
void report_lanes() {
  LoadedObjects& loaded = LoadedObjects::all();
  const std::lock_guard lock(loaded.mutex);
  for (const CodeObject& object : loaded.objects) object.report_lanes();
}

}  // namespace

void CodeObject::report_lanes() const {
  for (const Kernel& kernel : kernels_) {
    const LaneRecord& record = kernel.lane_record();
    const auto count = [](const std::atomic<uint64_t>& n) { return (unsigned long long)n.load(); };
    if (record.groups == 0 && record.blocks == 0) continue;
    std::fprintf(stderr,
                 "kevra CPU device: kernel '%s': %llu groups of %u blocks in lanes, %llu of them "
                 "diverged, %llu blocks alone%s%s\n",
                 kernel.entry().name, count(record.groups),
                 kernel.lane_entry() != nullptr ? kernel.lane_entry()->lanes : 0,
                 count(record.diverged), count(record.blocks),
                 kernel.lane_entry() == nullptr ? ", no lane form" : "",
                 lane_hooks_ != nullptr && lane_hooks_->log != 0 ? ", stores logged" : "");
  }
}

int load_code_object(const void* image, CodeObject** out) {
  std::vector<std::byte> elf;
  if (const int code = kevra_platform::open_image(image, code_object_tag(), &elf)) return code;
  void* library = load_library(elf);
  if (library == nullptr) return kevra_platform::invalid_image;
  const void* table = dlsym(library, "kevra_kernel_table");
  if (table == nullptr) return kevra_platform::invalid_image;

  LoadedObjects& loaded = LoadedObjects::all();
  const std::lock_guard lock(loaded.mutex);
  if (settings().debug && loaded.objects.empty()) std::atexit(report_lanes);
  if (!settings().check) elf.clear();
  *out = &loaded.objects.emplace_back(std::move(elf),
                                      *static_cast<const kevra_cpu_device::KernelTable*>(table));
  return 0;
}

Kernel* find_kernel(CodeObject* object, const char* name) {
  return object->find(name);
}

}  // namespace kevra_cpu
