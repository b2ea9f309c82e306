#include "runtime/stream.h"

#include <algorithm>
#include <thread>

#include "runtime/spin.h"

namespace kevra_cpu {

uint64_t Stream::submit(Command command, Start start) {
  std::unique_lock lock(mutex_);
  if (start == Start::executor && !executor_running_) start_executor();
  queue_.push_back(std::move(command));
  const uint64_t number = submitted_.load(std::memory_order_relaxed) + 1;
  submitted_.store(number, std::memory_order_release);
  if (start == Start::executor) wake_executor();
  return number;
}

void Stream::wait(uint64_t number) {
  if (completed() >= number) return;
  std::unique_lock lock(mutex_);
  while (completed() < number) {
    if (!owned_) {
      run_owned(lock, number);
      continue;
    }
    lock.unlock();
    spin_until([&] { return completed() >= number; });
    lock.lock();
    if (completed() >= number || !owned_) continue;
    wanted_ = std::min(wanted_, number);
    done_.wait(lock);
  }
}

void Stream::close() {
  const std::lock_guard lock(mutex_);
  closed_.store(true, std::memory_order_release);
  wake_executor();
}

std::shared_ptr<Capture> Stream::capture() {
  if (!capturing_.load(std::memory_order_acquire)) return nullptr;
  const std::lock_guard lock(capture_mutex_);
  return capture_;
}

void Stream::set_capture(std::shared_ptr<Capture> capture) {
  const std::lock_guard lock(capture_mutex_);
  capturing_.store(capture != nullptr, std::memory_order_release);
  capture_ = std::move(capture);
}

void Stream::start_executor() {
  // Never joined: the process may end with work in flight.
  std::thread([self = shared_from_this()] { self->serve(); }).detach();
  executor_running_ = true;
}

void Stream::wake_executor() {
  if (!executor_asleep_) return;
  executor_asleep_ = false;
  work_.notify_one();
}

// Runs commands up to the number `last` as the queue's owner; `lock` is held on entry and exit.
void Stream::run_owned(std::unique_lock<std::mutex>& lock, uint64_t last) {
  owned_ = true;
  uint64_t number = completed();
  while (!queue_.empty() && number < last) {
    {
      const Command command = std::move(queue_.front());
      queue_.pop_front();
      lock.unlock();
      perform(*this, command);
    }
    lock.lock();
    completed_.store(++number, std::memory_order_release);
    if (number >= wanted_) {
      wanted_ = UINT64_MAX;
      done_.notify_all();
    }
  }
  owned_ = false;
  // What is left has another owner to find: the executor, or those who wait for it.
  if (!queue_.empty()) {
    wanted_ = UINT64_MAX;
    done_.notify_all();
  }
  if (!queue_.empty() || closed()) wake_executor();
}

void Stream::serve() {
  std::unique_lock lock(mutex_);
  // Work tends to follow work: the executor looks out for a moment before it sleeps.
  bool looked_out = false;
  for (;;) {
    if (!owned_ && !queue_.empty()) {
      run_owned(lock, UINT64_MAX);
      looked_out = false;
    } else if (!owned_ && closed()) {
      executor_running_ = false;
      return;
    } else if (!owned_ && !looked_out) {
      lock.unlock();
      spin_until([&] { return !idle() || closed(); });
      lock.lock();
      looked_out = true;
    } else {
      executor_asleep_ = true;
      work_.wait(lock, [&] { return !executor_asleep_; });
    }
  }
}

}  // namespace kevra_cpu
