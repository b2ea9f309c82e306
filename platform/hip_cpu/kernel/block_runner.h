// Runs one block: starts its threads, takes them from wait to wait, and sees to it that all of
// them wait at the same places. A runner belongs to one thread of the host and keeps its memory
// from block to block.
#pragma once

#include <csetjmp>
#include <memory>
#include <string>
#include <vector>

#include "compiler/device/block.h"
#include "kernel/block_observer.h"
#include "kernel/launch.h"
#include "kernel/pending_additions.h"
#include "kernel/store_log.h"

namespace kevra_cpu {

enum class GroupEnd { done, diverged, failed };

class BlockRunner {
 public:
  BlockRunner();
  BlockRunner(const BlockRunner&) = delete;
  BlockRunner& operator=(const BlockRunner&) = delete;

  // The calling thread's own.
  static BlockRunner& of_this_thread();

  // False, with `report` saying what went wrong, when the block could not run to its end.
  bool run(const Launch& launch, Dim3 index, std::string& report,
           BlockObserver* observer = nullptr);

  // Runs the neighbours of block `first` along x with it, one a lane of the kernel's lane form.
  // A group that diverges has undone its stores, or made only such as its blocks make again.
  GroupEnd run_group(const Launch& launch, Dim3 first, std::string& report);
  // For the lane code that runs on this thread: ends its group, and notes what it overwrites.
  [[noreturn]] void diverge() { std::longjmp(way_out_, 1); }
  [[noreturn]] void need_log();
  StoreLog& store_log() { return store_log_; }
  PendingAdditions& additions();
  unsigned lanes() const { return lanes_; }

  // Whether the bytes are the runner's own, among them the frames of the block's threads.
  bool owns(uintptr_t address, size_t bytes) const;

 private:
  using Place = kevra_cpu_device::Place;

  // Room for coroutine frames, handed out from its start and all at once given back.
  struct Chunk {
    explicit Chunk(size_t bytes) : memory(new char[bytes]), bytes(bytes) {}
    std::unique_ptr<char[]> memory;
    size_t bytes;
  };

  using Start = void (*)(kevra_cpu_device::Block* block, kevra_cpu_device::Index3 first,
                         unsigned count);

  void prepare(const Launch& launch, Dim3 index, Start start, unsigned lanes, size_t cell_bytes);
  void start_threads();
  void start_thread(unsigned thread);
  bool finish_threads(std::string& report);
  void resume(unsigned thread);
  void resume_where(bool shuffles_only);
  void resume_all();
  bool all_at_one_place() const;
  bool groups_agree(std::string& report) const;
  std::string describe(unsigned thread) const;
  std::string disagreement(unsigned a, unsigned b) const;
  void tell_meetings(bool together);
  static char* more_frames(kevra_cpu_device::Block* block, unsigned long bytes);

  kevra_cpu_device::Block block_{};
  const Launch* launch_ = nullptr;
  Start start_ = nullptr;
  BlockObserver* observer_ = nullptr;
  unsigned threads_ = 0;
  unsigned lanes_ = 1;
  std::vector<uint32_t> order_;  // of the threads; empty: as they are numbered

  std::jmp_buf way_out_;
  StoreLog store_log_;
  PendingAdditions additions_;

  std::unique_ptr<std::byte[]> shared_;  // and cells behind it
  size_t shared_room_ = 0;
  std::vector<Chunk> chunks_;
  size_t chunks_used_ = 0;
  std::vector<Place> places_;
  std::vector<void*> frames_;
  std::unique_ptr<char[]> shuffled_;
};

}  // namespace kevra_cpu
