// Who watches a block run. The runner tells it which thread goes on and what its threads have met.
#pragma once

#include "compiler/device/block.h"

namespace kevra_cpu {

class BlockObserver {
 public:
  virtual ~BlockObserver() = default;
  // The block is ready and none of its threads has run.
  virtual void begin_block(const kevra_cpu_device::Block& block, unsigned threads) = 0;
  // What follows is this thread's doing.
  virtual void enter_thread(unsigned thread) = 0;
  // All threads of the block have met.
  virtual void pass_barrier(unsigned line) = 0;
  // The threads of one group have met.
  virtual void pass_shuffle(unsigned group) = 0;
  virtual void end_block() = 0;
};

}  // namespace kevra_cpu
