// A fork-join pool: one per process, made on first use, its threads living as long as the process.
#pragma once

#include <cstdint>

namespace kevra::host_fft {

// The most threads that a loop may use: what the environment asked for, else hardware_threads().
int max_threads();

// How many of `rows` rows one index should handle: about four chunks a thread, none above `grain`.
int parallel_chunk(int grain, int64_t rows);

// A callable of one int, borrowed.
struct IndexTask {
  void (*call)(const void* callable, int index);
  const void* callable;
};
void parallel_for_task(int count, IndexTask task);

// fn(i) for every i below `count`, concurrently with itself, on this thread and on the pool's.
// Returns when all are done. If some throw, the indices not yet begun are dropped and the first
// exception is rethrown here. A call from within fn runs serially on its thread.
template <class Function>
void parallel_for(int count, const Function& fn) {
  parallel_for_task(count, {[](const void* callable, int index) {
                              (*static_cast<const Function*>(callable))(index);
                            },
                            &fn});
}

}  // namespace kevra::host_fft
