// A loaded code object and its kernels.
#pragma once

#include <cstddef>
#include <deque>
#include <vector>

#include "compiler/device/block.h"
#include "kernel/launch.h"

namespace kevra_cpu {

class Kernel {
 public:
  Kernel(const kevra_cpu_device::KernelEntry* entry, const CodeObject* object)
      : entry_(entry), object_(object) {}

  const kevra_cpu_device::KernelEntry& entry() const { return *entry_; }
  const CodeObject& object() const { return *object_; }

 private:
  const kevra_cpu_device::KernelEntry* entry_;
  const CodeObject* object_;
};

class CodeObject {
 public:
  CodeObject(std::vector<std::byte> elf, const kevra_cpu_device::KernelTable& table);

  Kernel* find(const char* name);
  const std::vector<std::byte>& elf() const { return elf_; }  // kept in check mode only

 private:
  std::vector<std::byte> elf_;
  std::deque<Kernel> kernels_;
};

}  // namespace kevra_cpu
