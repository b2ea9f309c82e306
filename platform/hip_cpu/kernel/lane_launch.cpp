#include "kernel/lane_launch.h"

#include <cstring>

#include "common/settings.h"
#include "kernel/address_space.h"
#include "kernel/block_runner.h"
#include "kernel/code_object.h"
#include "kernel/grid.h"

namespace kevra_cpu {

namespace {

using kevra_cpu_device::LaneEntry;

// Whether the launch may read what it writes: a pointer that it only reads through stands in the
// same allocation as another one, or nobody knows where it stands.
bool may_read_results(const Launch& launch, const LaneEntry& entry) {
  std::vector<Allocation> read, written;
  for (unsigned i = 0; entry.kinds[i] != 0; ++i) {
    if (entry.kinds[i] == 'v') continue;
    uintptr_t address = 0;
    std::memcpy(&address, launch.arguments.data() + launch.kernel->entry().arguments[i].offset,
                sizeof address);
    Allocation found;
    if (address == 0) continue;
    if (!find_allocation(address, &found)) return true;
    (entry.kinds[i] == 'i' ? read : written).push_back(found);
  }
  for (const Allocation& a : read)
    for (const Allocation& b : written)
      if (a.base == b.base) return true;
  return false;
}

void save_rows(void* first, long long step, unsigned bytes) {
  BlockRunner& runner = BlockRunner::of_this_thread();
  for (unsigned lane = 0; lane < (step == 0 ? 1 : runner.lanes()); ++lane)
    runner.store_log().save(static_cast<char*>(first) + lane * step, bytes);
}

}  // namespace

kevra_cpu_device::LaneHooks lane_hooks() {
  const auto add = [](void (*make)(void*, long long, const void*), void* first, long long step,
                      const void* values, unsigned bytes) {
    BlockRunner::of_this_thread().additions().note(make, first, step, values, bytes);
  };
  return {0,
          save_rows,
          add,
          0,
          [] { BlockRunner::of_this_thread().diverge(); },
          [] { BlockRunner::of_this_thread().need_log(); }};
}

LaneLaunch::LaneLaunch(const Launch& launch) : launch_(launch), pieces_(count_of(launch.grid)) {
  const LaneEntry* entry = launch.kernel->lane_entry();
  if (entry == nullptr || !settings().lanes || launch.grid.x < entry->lanes) return;
  // As groups, such a launch would keep few processors busy.
  few_ = pieces_ / entry->lanes < LaneRecord::patience;
  if (few_ && !launch.kernel->lane_record().worth_a_try()) return;
  lanes_ = entry->lanes;
  groups_ = launch.grid.x / lanes_;
  singles_ = launch.grid.x % lanes_;
  pieces_ = uint64_t(groups_ + singles_) * launch.grid.y * launch.grid.z;
  int& log = launch.kernel->object().lane_hooks()->log;
  if (__atomic_load_n(&log, __ATOMIC_RELAXED) == 0 && may_read_results(launch, *entry))
    __atomic_store_n(&log, 1, __ATOMIC_RELAXED);
}

bool LaneLaunch::run(uint64_t piece, std::string& report) const {
  LaneRecord& record = launch_.kernel->lane_record();
  const uint32_t per_row = groups_ + singles_;
  const auto place = static_cast<uint32_t>(piece % per_row);
  const auto row = piece / per_row;
  Dim3 index{0, uint32_t(row % launch_.grid.y), uint32_t(row / launch_.grid.y)};
  if (place < groups_) {
    index.x = place * lanes_;
    return run_group(index, report);
  }
  index.x = groups_ * lanes_ + (place - groups_);
  record.blocks.fetch_add(1, std::memory_order_relaxed);
  return BlockRunner::of_this_thread().run(launch_, index, report);
}

bool LaneLaunch::run_group(Dim3 first, std::string& report) const {
  LaneRecord& record = launch_.kernel->lane_record();
  BlockRunner& runner = BlockRunner::of_this_thread();
  if (few_ || record.worth_a_try()) {
    const GroupEnd end = runner.run_group(launch_, first, report);
    record.note(end == GroupEnd::diverged);
    if (end != GroupEnd::diverged) return end == GroupEnd::done;
  }
  record.blocks.fetch_add(lanes_, std::memory_order_relaxed);
  for (uint32_t lane = 0; lane < lanes_; ++lane)
    if (!runner.run(launch_, {first.x + lane, first.y, first.z}, report)) return false;
  return true;
}

}  // namespace kevra_cpu
