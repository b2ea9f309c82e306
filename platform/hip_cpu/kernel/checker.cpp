#include "kernel/checker.h"

#include <mutex>

#include "common/settings.h"
#include "kernel/block_runner.h"
#include "kernel/code_object.h"
#include "kernel/grid.h"
#include "kernel/order.h"
#include "kernel/source_line.h"

namespace kevra_cpu {

namespace {

constexpr int launch_failure = 719;

// The launch under check. One at a time: the mutex of run_checked.
Checker* active = nullptr;

DeviceRaces& device_races() {
  static auto& races = *new DeviceRaces;
  return races;
}

SharedRaces& shared_races() {
  static auto& races = *new SharedRaces;
  return races;
}

template <Access access>
void hook(const void* address, unsigned bytes, const void* code) {
  if (active == nullptr) return;
  active->note(reinterpret_cast<uintptr_t>(address), bytes, code, access);
  active->leave_on_fault();
}

std::string hexadecimal(uintptr_t address) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%zx", static_cast<size_t>(address));
  return text;
}

const char* present(Access access) {
  return access == Access::read ? "reads" : access == Access::write ? "writes" : "changes";
}

// What the earlier access of a race did.
const char* past(ShadowByte::State seen) {
  switch (seen) {
    case ShadowByte::written:
      return "wrote";
    case ShadowByte::atomic_by_one:
    case ShadowByte::atomic_by_group:
    case ShadowByte::atomic_by_many:
      return "changed atomically";
    default:
      return "read";
  }
}

// Not a number in double, float and half.
void fill_with_nan(char* memory, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) memory[i] = static_cast<char>(i & 1 ? 0x7f : 0xf5);
}

}  // namespace

kevra_cpu_device::CheckHooks check_hooks() {
  return {hook<Access::read>, hook<Access::write>, hook<Access::atomic>};
}

int run_checked(const Launch& launch, std::string& report) {
  static std::mutex one_at_a_time;
  const std::lock_guard lock(one_at_a_time);
  BlockRunner& runner = BlockRunner::of_this_thread();
  Checker checker(launch, runner);
  const uint64_t blocks = count_of(launch.grid);
  const std::vector<uint32_t> order = run_order(static_cast<uint32_t>(blocks), 0);
  for (uint64_t i = 0; i < blocks && report.empty(); ++i)
    checker.run_block(runner, index_of(order.empty() ? i : order[i], launch.grid), report);
  if (!settings().profile.empty()) write_profile(launch, checker.profile());
  return report.empty() ? 0 : launch_failure;
}

Checker::Checker(const Launch& launch, const BlockRunner& runner)
    : launch_(launch),
      runner_(runner),
      stack_(stack_of_this_thread()),
      image_(image_of(reinterpret_cast<const void*>(launch.kernel->entry().start))),
      profile_(!settings().profile.empty()) {
  device_races().begin_launch(count_of(launch.grid));
  device_races().keep([](uintptr_t base, size_t bytes) {
    Allocation now;
    return find_allocation(base, &now) && now.base == base && now.bytes == bytes;
  });
}

void Checker::run_block(BlockRunner& runner, Dim3 index, std::string& report) {
  block_ = index;
  block_number_ = number_of(index, launch_.grid);
  fault_.clear();
  // A fault leaves the kernel in the middle. What stays behind are coroutine frames, which the
  // runner drops with the block, and calls of the kernel and the runner that own nothing.
  active = this;
  if (setjmp(out_) == 0) runner.run(launch_, index, report, this);
  active = nullptr;
  if (!fault_.empty()) report = fault_ + line_text(code_);
}

void Checker::begin_block(const kevra_cpu_device::Block& block, unsigned threads) {
  shared_ = range_of(block.shared, launch_.shared_bytes);
  static_shared_ = range_of(block.static_shared, kevra_cpu_device::static_shared_bytes);
  fill_with_nan(block.shared, launch_.shared_bytes);
  fill_with_nan(block.static_shared, kevra_cpu_device::static_shared_bytes);
  last_barrier_line_ = 0;
  shared_races().begin_block(threads);
  profile_.begin_block(threads);
}

void Checker::enter_thread(unsigned thread) {
  thread_ = thread;
}

void Checker::pass_barrier(unsigned line) {
  last_barrier_line_ = line;
  shared_races().pass_barrier();
  profile_.pass_barrier();
}

void Checker::pass_shuffle(unsigned group) {
  shared_races().pass_shuffle(group);
  profile_.pass_shuffle();
}

void Checker::end_block() {
  profile_.end_block();
}

void Checker::note(uintptr_t address, unsigned bytes, const void* code, Access access) {
  code_ = code;
  for (const AddressRange& shared : {shared_, static_shared_}) {
    if (!shared.holds(address, bytes)) continue;
    profile_.note_shared(thread_, code, address - shared_.begin, bytes);
    return note_shared(address, bytes, access);
  }
  if (is_private(address, bytes)) return;
  if (const Allocation* allocation = allocations_.find(address, bytes)) {
    profile_.note_device(thread_, code, address, bytes, access);
    return note_device(*allocation, address, bytes, access);
  }
  fault_ = stray_text(address, bytes, access);
}

// A thread's own memory, and what the compiled code keeps for itself.
bool Checker::is_private(uintptr_t address, unsigned bytes) {
  return stack_.holds(address, bytes) || runner_.owns(address, bytes) ||
         image_.holds(address, bytes) ||
         range_of(launch_.arguments.data(), launch_.arguments.size()).holds(address, bytes);
}

void Checker::note_shared(uintptr_t address, unsigned bytes, Access access) {
  const Race race = shared_races().note(address - shared_.begin, bytes, thread_, access);
  if (!race.found) return;
  // Of several readers the last one is known, and that may have been this thread.
  const std::string others =
      race.other == thread_ ? "other threads" : "thread " + thread_text(race.other);
  const bool is_static = static_shared_.holds(address, bytes);
  const uintptr_t offset = address - (is_static ? static_shared_ : shared_).begin;
  std::string fault = where() + " " + present(access) + (is_static ? " static" : "") +
                      " shared memory at byte " + std::to_string(offset) + ", which " + others +
                      " " + past(race.seen) + " with no barrier between them";
  if (last_barrier_line_ != 0)
    fault += " since the one of line " + std::to_string(last_barrier_line_);
  fault_ = "race: " + fault;
}

void Checker::note_device(const Allocation& allocation, uintptr_t address, unsigned bytes,
                          Access access) {
  const Race race =
      device_races().note(allocation.base, allocation.bytes, address, bytes, block_number_, access);
  if (!race.found) return;
  const std::string others = race.other == block_number_
                                 ? "other blocks"
                                 : "block " + as_text(index_of(race.other, launch_.grid));
  fault_ = "race: " + where() + " " + present(access) + " byte " +
           std::to_string(address - allocation.base) + " of the allocation of " +
           std::to_string(allocation.bytes) + " bytes at " + hexadecimal(allocation.base) +
           ", which " + others + " " + past(race.seen) + "; blocks of a launch are not ordered";
}

void Checker::leave_on_fault() {
  if (!fault_.empty()) std::longjmp(out_, 1);
}

std::string Checker::line_text(const void* code) const {
  const uintptr_t offset = reinterpret_cast<uintptr_t>(code) - image_.begin;
  const std::string line = source_line(launch_.kernel->object().elf(), offset - 1);
  return line.empty() ? line : " (" + line + ")";
}

std::string Checker::thread_text(unsigned thread) const {
  return as_text(index_of(thread, launch_.block));
}

std::string Checker::where() const {
  return std::string("kernel '") + launch_.kernel->entry().name + "', block " + as_text(block_) +
         ", thread " + thread_text(thread_);
}

std::string Checker::stray_text(uintptr_t address, unsigned bytes, Access access) const {
  std::string text = "stray access: " + where() + " " + present(access) + " " +
                     std::to_string(bytes) + " bytes at " + hexadecimal(address);
  if (address >= shared_.begin && address < shared_.end + 4096) {
    return text + ", " + std::to_string(address - shared_.begin) +
           " bytes into the block's shared memory of " + std::to_string(launch_.shared_bytes);
  }
  Allocation nearest;
  if (!nearest_allocation(address, &nearest)) return text + "; there is no device memory";
  text += address < nearest.base
              ? ", " + std::to_string(nearest.base - address) + " bytes before"
              : ", at byte " + std::to_string(address - nearest.base) + " from the start of";
  return text + " the nearest allocation, " + std::to_string(nearest.bytes) + " bytes at " +
         hexadecimal(nearest.base);
}

}  // namespace kevra_cpu
