#include "kernel/address_space.h"

#include <link.h>
#include <pthread.h>

#include <algorithm>

namespace kevra_cpu {

AddressRange range_of(const void* p, size_t bytes) {
  const auto begin = reinterpret_cast<uintptr_t>(p);
  return {begin, begin + bytes};
}

AddressRange stack_of_this_thread() {
  pthread_attr_t attributes;
  void* base = nullptr;
  size_t bytes = 0;
  if (pthread_getattr_np(pthread_self(), &attributes) != 0) return {};
  pthread_attr_getstack(&attributes, &base, &bytes);
  pthread_attr_destroy(&attributes);
  return range_of(base, bytes);
}

namespace {

struct ObjectSearch {
  uintptr_t code;
  ObjectRanges found;
};

int look_at_object(dl_phdr_info* object, size_t, void* data) {
  auto& search = *static_cast<ObjectSearch*>(data);
  ObjectRanges ranges{{UINTPTR_MAX, 0}, {}};
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const auto& header = object->dlpi_phdr[i];
    if (header.p_type == PT_LOAD) {
      const uintptr_t begin = object->dlpi_addr + header.p_vaddr;
      ranges.image.begin = std::min(ranges.image.begin, begin);
      ranges.image.end = std::max(ranges.image.end, begin + header.p_memsz);
    } else if (header.p_type == PT_TLS && object->dlpi_tls_data != nullptr) {
      ranges.thread_local_variables = range_of(object->dlpi_tls_data, header.p_memsz);
    }
  }
  if (!ranges.image.holds(search.code, 1)) return 0;
  search.found = ranges;
  return 1;
}

}  // namespace

ObjectRanges object_ranges(const void* code) {
  ObjectSearch search{reinterpret_cast<uintptr_t>(code), {}};
  dl_iterate_phdr(look_at_object, &search);
  return search.found;
}

const Allocation* AllocationLookup::find(uintptr_t address, size_t bytes) {
  if (const uint64_t now = allocation_generation(); now != generation_) {
    recent_.clear();
    generation_ = now;
  }
  for (const Allocation& one : recent_)
    if (AddressRange{one.base, one.base + one.bytes}.holds(address, bytes)) return &one;
  Allocation found;
  if (!find_allocation(address, &found) || address - found.base > found.bytes - bytes ||
      found.bytes < bytes)
    return nullptr;
  if (recent_.size() == remembered) recent_.pop_back();
  return &*recent_.insert(recent_.begin(), found);
}

}  // namespace kevra_cpu
