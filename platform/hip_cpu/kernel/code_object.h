// A loaded code object and its kernels.
#pragma once

#include <cstddef>
#include <deque>
#include <vector>

#include "compiler/device/block.h"
#include "kernel/lane_launch.h"
#include "kernel/launch.h"

namespace kevra_cpu {

class Kernel {
 public:
  Kernel(const kevra_cpu_device::KernelEntry* entry, const kevra_cpu_device::LaneEntry* lanes,
         const CodeObject* object)
      : entry_(entry), lane_entry_(lanes), object_(object) {}

  const kevra_cpu_device::KernelEntry& entry() const { return *entry_; }
  // Null for a kernel that has no lane form.
  const kevra_cpu_device::LaneEntry* lane_entry() const { return lane_entry_; }
  LaneRecord& lane_record() const { return lane_record_; }
  const CodeObject& object() const { return *object_; }

 private:
  const kevra_cpu_device::KernelEntry* entry_;
  const kevra_cpu_device::LaneEntry* lane_entry_;
  mutable LaneRecord lane_record_;
  const CodeObject* object_;
};

class CodeObject {
 public:
  CodeObject(std::vector<std::byte> elf, const kevra_cpu_device::KernelTable& table);

  Kernel* find(const char* name);
  const std::vector<std::byte>& elf() const { return elf_; }  // kept in check mode only
  // A line on stderr for each kernel that ran: how many groups of blocks in lanes, how many alone.
  void report_lanes() const;
  kevra_cpu_device::LaneHooks* lane_hooks() const { return lane_hooks_; }

 private:
  std::vector<std::byte> elf_;
  kevra_cpu_device::LaneHooks* lane_hooks_;
  std::deque<Kernel> kernels_;
};

}  // namespace kevra_cpu
