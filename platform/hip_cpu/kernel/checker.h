// Check mode's eye on one launch: every load, store and atomic of the kernel comes by here. The
// first fault ends the launch: a stray access before it happens, a race once it is certain.
//
// Blocks of a checked launch run one after the other on the calling thread, and checked launches
// one at a time, so nothing here needs a lock.
#pragma once

#include <csetjmp>
#include <string>

#include "kernel/address_space.h"
#include "kernel/block_observer.h"
#include "kernel/launch.h"
#include "kernel/race_detector.h"
#include "kernel/wave_profile.h"

namespace kevra_cpu {

class BlockRunner;

// Runs a launch under the checker: what run_launch does in check mode.
int run_checked(const Launch& launch, std::string& report);

// What a code object made for check mode calls.
kevra_cpu_device::CheckHooks check_hooks();

class Checker : public BlockObserver {
 public:
  Checker(const Launch& launch, const BlockRunner& runner);

  // A fault of the block is told in `report`.
  void run_block(BlockRunner& runner, Dim3 index, std::string& report);
  const LaunchProfile& profile() const { return profile_.totals(); }

  void note(uintptr_t address, unsigned bytes, const void* code, Access access);
  // Gives up the block when a fault has been found. Functions that own memory must be left by
  // then: this jumps to run_block.
  void leave_on_fault();

  void begin_block(const kevra_cpu_device::Block& block, unsigned threads) override;
  void enter_thread(unsigned thread) override;
  void pass_barrier(unsigned line) override;
  void pass_shuffle(unsigned group) override;
  void end_block() override;

 private:
  bool is_private(uintptr_t address, unsigned bytes);
  void note_shared(uintptr_t address, unsigned bytes, Access access);
  void note_device(const Allocation& allocation, uintptr_t address, unsigned bytes, Access access);
  std::string line_text(const void* code) const;
  std::string where() const;
  std::string thread_text(unsigned thread) const;
  std::string stray_text(uintptr_t address, unsigned bytes, Access access) const;

  const Launch& launch_;
  const BlockRunner& runner_;
  const AddressRange stack_;
  const AddressRange image_;
  AllocationLookup allocations_;
  WaveProfile profile_;

  AddressRange shared_, static_shared_;
  Dim3 block_;
  uint64_t block_number_ = 0;
  unsigned thread_ = 0;
  unsigned last_barrier_line_ = 0;
  const void* code_ = nullptr;  // of the present access: where its call returns to
  std::string fault_;
  std::jmp_buf out_;
};

}  // namespace kevra_cpu
