#include "kernel/block_runner.h"

#include <algorithm>

#include "kernel/code_object.h"
#include "kernel/grid.h"
#include "kernel/order.h"

namespace kevra_cpu {

using kevra_cpu_device::Block;
using kevra_cpu_device::ended;
using kevra_cpu_device::group_threads;
using kevra_cpu_device::Index3;
using kevra_cpu_device::max_threads;
using kevra_cpu_device::place_kind;
using kevra_cpu_device::place_line;
using kevra_cpu_device::PlaceKind;

namespace {

// Between dynamic and static shared memory, so that an overrun does not end in the other.
constexpr size_t shared_gap = 4096;
constexpr size_t alignment = 128;  // of shared memory and of the first frame
constexpr size_t shuffle_room =    // of one round
    max_threads * kevra_cpu_device::max_lanes * kevra_cpu_device::shuffle_bytes;
constexpr size_t chunk_bytes = 256 << 10;  // frames of a 1024-thread block, a few words each

Index3 as_index(Dim3 d) {
  return {d.x, d.y, d.z};
}

char* aligned(void* p) {
  const auto address = reinterpret_cast<uintptr_t>(p);
  return static_cast<char*>(p) + ((address + alignment - 1) / alignment * alignment - address);
}

}  // namespace

BlockRunner::BlockRunner()
    : places_(max_threads),
      frames_(max_threads),
      shuffled_(std::make_unique_for_overwrite<char[]>(2 * shuffle_room)) {
  block_.places = places_.data();
  block_.frames = frames_.data();
  block_.more_frames = more_frames;
  block_.shuffled[0] = shuffled_.get();
  block_.shuffled[1] = shuffled_.get() + shuffle_room;
}

BlockRunner& BlockRunner::of_this_thread() {
  thread_local BlockRunner runner;
  return runner;
}

bool BlockRunner::run(const Launch& launch, Dim3 index, std::string& report,
                      BlockObserver* observer) {
  prepare(launch, index, launch.kernel->entry().start, 1, 0);
  observer_ = observer;
  if (observer_ != nullptr) observer_->begin_block(block_, threads_);
  start_threads();
  if (launch.kernel->entry().suspends != 0 && !finish_threads(report)) return false;
  if (observer_ != nullptr) observer_->end_block();
  return true;
}

// Coroutine frames own nothing, so a group that diverges in the middle of one simply leaves it.
GroupEnd BlockRunner::run_group(const Launch& launch, Dim3 first, std::string& report) {
  const auto& entry = *launch.kernel->lane_entry();
  prepare(launch, first, entry.start, entry.lanes, entry.cell_bytes);
  observer_ = nullptr;
  store_log_.clear();
  additions_.clear();
  if (setjmp(way_out_) != 0) {
    store_log_.undo();
    return GroupEnd::diverged;
  }
  start_threads();
  if (!finish_threads(report)) return GroupEnd::failed;
  additions_.make();
  return GroupEnd::done;
}

PendingAdditions& BlockRunner::additions() {
  __atomic_store_n(&launch_->kernel->object().lane_hooks()->adds, 1, __ATOMIC_RELAXED);
  return additions_;
}

void BlockRunner::need_log() {
  __atomic_store_n(&launch_->kernel->object().lane_hooks()->log, 1, __ATOMIC_RELAXED);
  diverge();
}

bool BlockRunner::owns(uintptr_t address, size_t bytes) const {
  const auto within = [&](const void* begin, size_t size) {
    const uintptr_t offset = address - reinterpret_cast<uintptr_t>(begin);
    return offset < size && bytes <= size - offset;
  };
  for (const Chunk& chunk : chunks_)
    if (within(chunk.memory.get(), chunk.bytes)) return true;
  return within(&block_, sizeof block_) || within(shuffled_.get(), 2 * shuffle_room);
}

void BlockRunner::prepare(const Launch& launch, Dim3 index, Start start, unsigned lanes,
                          size_t cell_bytes) {
  launch_ = &launch;
  start_ = start;
  lanes_ = lanes;
  threads_ = static_cast<unsigned>(count_of(launch.block));
  const size_t shared_bytes = lanes * launch.shared_bytes + shared_gap;
  const size_t static_bytes = lanes * kevra_cpu_device::static_shared_bytes + shared_gap;
  const size_t room = shared_bytes + static_bytes + threads_ * cell_bytes + 3 * alignment;
  if (shared_room_ < room) {
    shared_ = std::make_unique_for_overwrite<std::byte[]>(room);
    shared_room_ = room;
  }
  block_.index = as_index(index);
  block_.size = as_index(launch.block);
  block_.grid = as_index(launch.grid);
  block_.shared = aligned(shared_.get());
  block_.static_shared = aligned(block_.shared + shared_bytes);
  block_.cells = aligned(block_.static_shared + static_bytes);
  block_.arguments = reinterpret_cast<const char*>(launch.arguments.data());
  block_.frames_next = block_.frames_end = nullptr;
  block_.shuffle_round = 0;
  chunks_used_ = 0;
  order_ = run_order(threads_, number_of(index, launch.grid));
}

void BlockRunner::start_threads() {
  for (const uint32_t thread : order_) start_thread(thread);
  if (!order_.empty()) return;
  if (observer_ != nullptr) {
    for (unsigned thread = 0; thread < threads_; ++thread) start_thread(thread);
    return;
  }
  for (unsigned z = 0; z < block_.size.z; ++z)
    for (unsigned y = 0; y < block_.size.y; ++y) start_(&block_, {0, y, z}, block_.size.x);
}

void BlockRunner::start_thread(unsigned thread) {
  if (observer_ != nullptr) observer_->enter_thread(thread);
  start_(&block_, as_index(index_of(thread, launch_->block)), 1);
}

bool BlockRunner::finish_threads(std::string& report) {
  for (;;) {
    const bool together = all_at_one_place();
    if (together && places_[0] == ended) return true;
    if (!together && !groups_agree(report)) return false;
    if (observer_ != nullptr) tell_meetings(together);
    ++block_.shuffle_round;
    resume_where(!together);
  }
}

bool BlockRunner::all_at_one_place() const {
  Place differences = 0;
  for (unsigned i = 1; i < threads_; ++i) differences |= places_[i] ^ places_[0];
  return differences == 0;
}

void BlockRunner::tell_meetings(bool together) {
  if (together && place_kind(places_[0]) == PlaceKind::barrier)
    return observer_->pass_barrier(place_line(places_[0]));
  for (unsigned first = 0; first < threads_; first += group_threads)
    if (place_kind(places_[first]) == PlaceKind::shuffle)
      observer_->pass_shuffle(first / group_threads);
}

void BlockRunner::resume(unsigned thread) {
  if (observer_ != nullptr) observer_->enter_thread(thread);
  // A coroutine's frame begins with the function that goes on with it.
  void* frame = frames_[thread];
  (*static_cast<void (**)(void*)>(frame))(frame);
  places_[thread] = block_.place;
}

// What nearly every wait ends with: a loop with nothing in it but the threads.
void BlockRunner::resume_all() {
  void* const* const frames = frames_.data();
  Place* const places = places_.data();
  for (unsigned thread = 0, count = threads_; thread < count; ++thread) {
    (*static_cast<void (**)(void*)>(frames[thread]))(frames[thread]);
    places[thread] = block_.place;
  }
}

// Threads at different places go on only where their groups wait for a shuffle.
void BlockRunner::resume_where(bool shuffles_only) {
  if (!shuffles_only && order_.empty() && observer_ == nullptr) return resume_all();
  const auto go_on = [&](unsigned thread) {
    if (!shuffles_only || place_kind(places_[thread]) == PlaceKind::shuffle) resume(thread);
  };
  for (const uint32_t thread : order_) go_on(thread);
  if (order_.empty())
    for (unsigned thread = 0; thread < threads_; ++thread) go_on(thread);
}

// Called when not all threads are at one place: right only while groups are busy with shuffles,
// each group's threads with the same one.
bool BlockRunner::groups_agree(std::string& report) const {
  unsigned other_group = 0;
  bool shuffles = false;
  for (unsigned first = 0; first < threads_; first += group_threads) {
    const unsigned end = std::min(first + group_threads, threads_);
    for (unsigned i = first + 1; i < end; ++i)
      if (places_[i] != places_[first]) return report = disagreement(first, i), false;
    shuffles |= place_kind(places_[first]) == PlaceKind::shuffle;
    if (other_group == 0 && places_[first] != places_[0]) other_group = first;
  }
  if (!shuffles) report = disagreement(0, other_group);
  return shuffles;
}

std::string BlockRunner::describe(unsigned thread) const {
  const Place place = places_[thread];
  std::string text = "thread " + as_text(index_of(thread, launch_->block));
  if (place == ended) return text + " has ended";
  return text + " waits at the " +
         (place_kind(place) == PlaceKind::shuffle ? "shuffle" : "barrier") + " of line " +
         std::to_string(place_line(place));
}

std::string BlockRunner::disagreement(unsigned a, unsigned b) const {
  const Index3& index = block_.index;
  return std::string("kernel '") + launch_->kernel->entry().name + "', block " +
         as_text({index.x, index.y, index.z}) + ": " + describe(a) + " while " + describe(b) +
         "; all threads of a block must reach the same barriers, and those of a group of 32 the "
         "same shuffles";
}

char* BlockRunner::more_frames(Block* block, unsigned long bytes) {
  BlockRunner& runner = of_this_thread();
  if (runner.chunks_used_ == runner.chunks_.size() ||
      runner.chunks_[runner.chunks_used_].bytes < bytes + alignment)
    runner.chunks_.emplace(runner.chunks_.begin() + std::ptrdiff_t(runner.chunks_used_),
                           std::max<size_t>(chunk_bytes, bytes + alignment));
  const Chunk& chunk = runner.chunks_[runner.chunks_used_++];
  block->frames_next = aligned(chunk.memory.get());
  block->frames_end = chunk.memory.get() + chunk.bytes;
  return block->frames_next;
}

}  // namespace kevra_cpu
