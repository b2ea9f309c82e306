// A launch cut into pieces that run one after the other or side by side: groups of neighbouring
// blocks in lanes where the kernel has a lane form and the grid is wide enough, else single blocks.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "compiler/device/block.h"
#include "kernel/launch.h"

namespace kevra_cpu {

// How a kernel's groups have fared, over all its launches.
struct LaneRecord {
  std::atomic<uint64_t> groups{0}, diverged{0}, blocks{0};  // blocks: those that ran alone

  // A kernel whose groups mostly diverge runs faster block by block. One in sixteen tries it again:
  // short signals are all edge, and the next one may be long.
  bool worth_a_try() {
    return partings_.load(std::memory_order_relaxed) < patience ||
           refused_.fetch_add(1, std::memory_order_relaxed) % seldom == seldom - 1;
  }
  void note(bool group_diverged) {
    groups.fetch_add(1, std::memory_order_relaxed);
    if (group_diverged) diverged.fetch_add(1, std::memory_order_relaxed);
    const int now = partings_.load(std::memory_order_relaxed);
    if (group_diverged ? now < patience : now > 0)
      partings_.store(now + (group_diverged ? 1 : -1), std::memory_order_relaxed);
  }
  static constexpr int patience = 16, seldom = 16;

 private:
  std::atomic<int> partings_{0};  // up by one that diverges, down by one that does not
  std::atomic<unsigned> refused_{0};
};

class LaneLaunch {
 public:
  explicit LaneLaunch(const Launch& launch);

  // Whether any of it runs in lanes; without, pieces are the grid's blocks by number.
  bool in_lanes() const { return lanes_ != 0; }
  uint64_t pieces() const { return pieces_; }
  // False, with `report` saying what went wrong, when a block could not run to its end.
  bool run(uint64_t piece, std::string& report) const;

 private:
  bool run_group(Dim3 first, std::string& report) const;

  const Launch& launch_;
  uint32_t lanes_ = 0;
  uint32_t groups_ = 0, singles_ = 0;  // of one row of blocks along x
  bool few_ = false;                   // too few groups to decide about each
  uint64_t pieces_;
};

// What the lane code of every code object calls.
kevra_cpu_device::LaneHooks lane_hooks();

}  // namespace kevra_cpu
