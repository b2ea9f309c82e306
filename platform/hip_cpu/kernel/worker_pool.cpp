#include "kernel/worker_pool.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <thread>

#include "common/settings.h"
#include "runtime/spin.h"

namespace kevra_cpu {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::nanoseconds;

// Work that the caller alone does in this time is not worth another thread: waking one costs a
// system call of about 5 us and brings help some 50 us later.
constexpr nanoseconds worth_sharing{40000};
// Blocks are taken this long at a time, so that taking them costs little.
constexpr nanoseconds piece{5000};

struct Job {
  const std::function<bool(uint64_t)>* run;
  uint64_t count;
  uint64_t step = 1;  // blocks taken at once
  std::atomic<uint64_t> next{0};
  std::atomic<int> helpers{0};  // changed under the pool's mutex only

  bool waiting() const { return next.load(std::memory_order_relaxed) < count; }

  void work() {
    for (;;) {
      const uint64_t begin = next.fetch_add(step, std::memory_order_relaxed);
      if (begin >= count) return;
      const uint64_t end = std::min(begin + step, count);
      for (uint64_t i = begin; i < end; ++i)
        if (!(*run)(i)) return next.store(count, std::memory_order_relaxed);
    }
  }
};

class WorkerPool {
 public:
  explicit WorkerPool(int workers) : workers_(workers) {
    for (int i = 0; i < workers; ++i) std::thread([this] { serve(); }).detach();
  }

  int workers() const { return workers_; }

  // Works on the job together with whichever workers are free.
  void share(Job& job) {
    std::unique_lock lock(mutex_);
    const auto place = jobs_.insert(jobs_.end(), &job);
    published_.fetch_add(1, std::memory_order_release);
    const bool wake = sleepers_ > 0;
    lock.unlock();
    if (wake) work_.notify_all();

    job.work();

    lock.lock();
    jobs_.erase(place);
    lock.unlock();
    spin_until([&] { return job.helpers.load(std::memory_order_acquire) == 0; });
    lock.lock();  // a helper lets go of the job only with the mutex
    done_.wait(lock, [&] { return job.helpers.load(std::memory_order_relaxed) == 0; });
  }

 private:
  Job* waiting_job() {
    for (Job* job : jobs_)
      if (job->waiting()) return job;
    return nullptr;
  }

  [[noreturn]] void serve() {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (Job* job = waiting_job()) {
        job->helpers.fetch_add(1, std::memory_order_relaxed);
        lock.unlock();
        job->work();
        lock.lock();
        if (job->helpers.fetch_sub(1, std::memory_order_release) == 1) done_.notify_all();
        continue;
      }
      // The next launch often follows at once: look out for it before sleeping.
      const uint64_t seen = published_.load(std::memory_order_relaxed);
      lock.unlock();
      const bool more =
          spin_until([&] { return published_.load(std::memory_order_acquire) != seen; });
      lock.lock();
      if (more || published_.load(std::memory_order_relaxed) != seen) continue;
      ++sleepers_;
      work_.wait(lock, [&] { return published_.load(std::memory_order_relaxed) != seen; });
      --sleepers_;
    }
  }

  const int workers_;
  std::mutex mutex_;  // guards jobs_, sleepers_ and who helps with what
  std::condition_variable work_, done_;
  std::list<Job*> jobs_;
  std::atomic<uint64_t> published_{0};  // jobs so far
  int sleepers_ = 0;
};

// Never taken down: workers may run until the process ends.
WorkerPool& pool() {
  static auto* const workers = new WorkerPool(std::max(settings().threads - 1, 0));
  return *workers;
}

}  // namespace

void share_blocks(uint64_t count, const std::function<bool(uint64_t)>& run) {
  Job job{&run, count};
  // Alone first: many launches are over before help could arrive.
  const auto begin = Clock::now();
  for (uint64_t done = 0; done < count;) {
    if (!run(done++)) return;
    const nanoseconds spent = Clock::now() - begin;
    const nanoseconds each = spent / int64_t(done);
    if (settings().threads > 1 && each * int64_t(count - done) > worth_sharing) {
      const uint64_t share = std::max<uint64_t>(count / (8 * settings().threads), 1);
      job.next = done;
      job.step = std::clamp<uint64_t>(piece / std::max(each, nanoseconds(1)), 1, share);
      return pool().share(job);
    }
  }
}

}  // namespace kevra_cpu
