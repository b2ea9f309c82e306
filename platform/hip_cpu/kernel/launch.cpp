#include "kernel/launch.h"

#include <cstring>
#include <mutex>

#include "common/settings.h"
#include "kernel/block_runner.h"
#include "kernel/checker.h"
#include "kernel/code_object.h"
#include "kernel/grid.h"
#include "kernel/lane_launch.h"
#include "kernel/order.h"
#include "kernel/worker_pool.h"

namespace kevra_cpu {

namespace {

constexpr int launch_failure = 719;

// What is wrong with the block's size, or nothing.
std::string size_fault(const Launch& launch) {
  const uint64_t threads = count_of(launch.block);
  const auto& entry = launch.kernel->entry();
  const unsigned bound =
      entry.launch_bound != 0 ? entry.launch_bound : kevra_cpu_device::max_threads;
  if (threads != 0 && threads <= bound) return {};
  return std::string("kernel '") + entry.name + "': a block of " + std::to_string(threads) +
         " threads; it takes 1 to " + std::to_string(bound);
}

}  // namespace

Launch pack_launch(const Kernel* kernel, Dim3 grid, Dim3 block, size_t shared_bytes,
                   void* const* arguments, int device) {
  Launch launch{kernel, grid, block, shared_bytes, {}, device};
  const auto& entry = kernel->entry();
  for (unsigned i = 0; i < entry.argument_count; ++i) {
    const auto& argument = entry.arguments[i];
    launch.arguments.resize(argument.offset + argument.bytes);
    std::memcpy(launch.arguments.data() + argument.offset, arguments[i], argument.bytes);
  }
  return launch;
}

int run_launch(const Launch& launch, std::string& report) {
  report = size_fault(launch);
  if (!report.empty()) return launch_failure;
  if (settings().check) return run_checked(launch, report);
  const LaneLaunch lanes(launch);
  const std::vector<uint32_t> order = run_order(static_cast<uint32_t>(lanes.pieces()), 0);
  const auto run = [&](uint64_t piece, std::string& fault) {
    if (lanes.in_lanes()) return lanes.run(piece, fault);
    if (settings().debug)
      launch.kernel->lane_record().blocks.fetch_add(1, std::memory_order_relaxed);
    const Dim3 index = index_of(order.empty() ? piece : order[piece], launch.grid);
    return BlockRunner::of_this_thread().run(launch, index, fault);
  };
  std::mutex failure;
  share_blocks(lanes.pieces(), [&](uint64_t i) {
    std::string fault;
    if (run(i, fault)) return true;
    const std::lock_guard lock(failure);
    if (report.empty()) report = fault;
    return false;
  });
  return report.empty() ? 0 : launch_failure;
}

}  // namespace kevra_cpu
