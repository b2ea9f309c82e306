// What a launch asks of the memory: bytes, segments and bank conflicts, as a GPU that runs its
// threads in waves would see them.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "kernel/launch.h"
#include "kernel/shadow.h"

namespace kevra_cpu {

struct LaunchProfile {
  uint64_t bytes_read = 0, bytes_written = 0, bytes_atomic = 0;  // in device memory
  uint64_t segment_bytes = 0;      // 64 for each segment that an access of a wave of 32 touches
  uint64_t touched_bytes = 0;      // 64 for each segment that the launch touches at all
  uint64_t shared_accesses = 0;    // to shared memory, one a wave of 32
  uint64_t bank_conflicts_32 = 0;  // cycles beyond the fewest that the words need
  uint64_t bank_conflicts_64 = 0;
  uint64_t barriers = 0, shuffles = 0;  // met, over all blocks
};

// Appends one line of JSON to the file that KEVRA_CPU_PROFILE names.
void write_profile(const Launch& launch, const LaunchProfile& profile);

// Threads run one after the other here. Their accesses are kept until the block meets, and then
// gone through again wave by wave: of the threads of a wave, those whose next access stands first
// in the code go on together, as they do where threads of a wave have parted.
class WaveProfile {
 public:
  // Does nothing unless `wanted`.
  explicit WaveProfile(bool wanted) : wanted_(wanted) {}

  void begin_block(unsigned threads);
  void note_shared(unsigned thread, const void* code, size_t offset, unsigned bytes);
  void note_device(unsigned thread, const void* code, uintptr_t address, unsigned bytes,
                   Access access);
  void pass_barrier();
  void pass_shuffle();
  void end_block() { close_phase(); }
  const LaunchProfile& totals() const { return totals_; }

 private:
  struct Event {
    const void* code;
    uintptr_t address;  // an offset in shared memory
    uint32_t bytes;
    bool shared;
  };

  void log(unsigned thread, const Event& event);
  void close_phase();
  template <typename Use>
  void replay(unsigned wave, Use use);
  void touch(uintptr_t segment);

  const bool wanted_;
  LaunchProfile totals_;
  unsigned threads_ = 0;
  uint64_t logged_ = 0, dropped_ = 0;       // events of this phase
  std::vector<std::vector<Event>> events_;  // by thread, of this phase
  std::vector<uintptr_t> units_;            // words or segments of one access, used again
  std::unordered_map<uintptr_t, std::vector<bool>> touched_;  // segments, by page
};

}  // namespace kevra_cpu
