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

struct ImageSearch {
  uintptr_t code;
  AddressRange found;
};

int look_at_object(dl_phdr_info* object, size_t, void* data) {
  auto& search = *static_cast<ImageSearch*>(data);
  AddressRange image{UINTPTR_MAX, 0};
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const auto& header = object->dlpi_phdr[i];
    if (header.p_type != PT_LOAD) continue;
    const uintptr_t begin = object->dlpi_addr + header.p_vaddr;
    image.begin = std::min(image.begin, begin);
    image.end = std::max(image.end, begin + header.p_memsz);
  }
  if (!image.holds(search.code, 1)) return 0;
  search.found = image;
  return 1;
}

}  // namespace

AddressRange image_of(const void* code) {
  ImageSearch search{reinterpret_cast<uintptr_t>(code), {}};
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
