#include "host_fft/parallel_for.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "environment.h"
#include "host_fft/hardware_threads.h"

namespace kevra::host_fft {
namespace {

const int thread_limit = environment::thread_limit();

// True on a worker for life and on a caller while it takes part: loops inside are serial.
thread_local bool in_parallel = false;

int hardware_concurrency() {
  return std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
}

// A line of its own, so that a spinning thread touches none that another one writes.
struct alignas(64) Flag {
  std::atomic<bool> set{false};
};

// Waits by spinning until `done()`; the clock and the scheduler are asked every 16th time. False
// when `limit` has run out.
template <class Done>
bool spin(const Done& done, std::chrono::nanoseconds limit) {
  const auto started = std::chrono::high_resolution_clock::now();
  for (unsigned looks = 1; !done(); ++looks) {
    if (looks % 16 != 0) continue;
    std::this_thread::yield();
    if (std::chrono::high_resolution_clock::now() - started > limit) return done();
  }
  return true;
}

class ThreadPool {
 public:
  static ThreadPool& instance() {
    static ThreadPool& pool = *new ThreadPool;  // its threads never end
    return pool;
  }

  void run(int count, int threads, IndexTask task) {
    const std::lock_guard run_lock(run_mutex_);
    const int helpers = std::min(threads - 1, count - 1);
    grow(std::min(hardware_concurrency() - 1, helpers));
    const int active = std::min(static_cast<int>(workers_.size()), helpers);
    task_ = task;
    count_ = count;
    error_ = nullptr;
    next_ = 0;
    for (int slot = 0; slot < active; ++slot) done_[slot].set = false;
    {
      const std::lock_guard wake_lock(wake_mutex_);
      for (int slot = 0; slot < active; ++slot) start_[slot].set = true;
    }
    wake_.notify_all();
    in_parallel = true;
    drain();
    in_parallel = false;
    for (int slot = 0; slot < active; ++slot) {
      spin([&] { return done_[slot].set.load(std::memory_order_acquire); },
           std::chrono::nanoseconds::max());
    }
    task_ = {};
    if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
  }

 private:
  ThreadPool() : start_(hardware_concurrency()), done_(hardware_concurrency()) {}

  void grow(int wanted) {
    while (static_cast<int>(workers_.size()) < wanted) {
      workers_.emplace_back([this, slot = workers_.size()] { work(slot); });
    }
  }

  void drain() {
    for (;;) {
      const int index = next_.fetch_add(1);
      if (index >= count_) return;
      try {
        task_.call(task_.callable, index);
      } catch (...) {
        next_ = count_;
        const std::lock_guard wake_lock(wake_mutex_);
        if (!error_) error_ = std::current_exception();
      }
    }
  }

  void work(size_t slot) {
    in_parallel = true;
    const auto started = [&] { return start_[slot].set.load(std::memory_order_acquire); };
    for (;;) {
      // Loops often follow each other closely: a worker that still spins costs no wake-up.
      if (!spin(started, std::chrono::milliseconds(20))) {
        std::unique_lock wake_lock(wake_mutex_);
        wake_.wait(wake_lock, started);
      }
      start_[slot].set.store(false, std::memory_order_relaxed);
      drain();
      done_[slot].set.store(true, std::memory_order_release);
    }
  }

  std::mutex run_mutex_;   // held for a whole run: runs of different threads follow each other
  std::mutex wake_mutex_;  // taken after run_mutex_; guards error_ and the sleeping side of start_
  std::condition_variable wake_;
  std::vector<std::thread> workers_;
  std::vector<Flag> start_;  // of each slot: set by the driver, cleared by its worker
  std::vector<Flag> done_;   // the other way round
  IndexTask task_{};
  std::exception_ptr error_;
  int count_ = 0;
  std::atomic<int> next_{0};
};

}  // namespace

int max_threads() {
  return thread_limit >= 1 ? thread_limit : hardware_threads();
}

int parallel_chunk(int grain, int64_t rows) {
  if (rows < 2) return 1;
  const int64_t threads = max_threads();
  if (threads < 2) return static_cast<int>(std::min<int64_t>(rows, INT_MAX));
  const int64_t chunks = std::min(4 * threads, rows);
  const int64_t even = (rows + chunks - 1) / chunks;
  return static_cast<int>(std::max<int64_t>(std::min<int64_t>(even, std::max(grain, 1)), 1));
}

void parallel_for_task(int count, IndexTask task) {
  if (count < 1) return;
  if (count > 1 && !in_parallel) {
    const int threads = std::min(max_threads(), count);
    if (threads > 1) return ThreadPool::instance().run(count, threads, task);
  }
  for (int index = 0; index < count; ++index) task.call(task.callable, index);
}

}  // namespace kevra::host_fft
