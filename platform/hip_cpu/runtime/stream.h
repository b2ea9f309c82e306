// A queue of commands that runs in order beside the host.
//
// Commands run on the stream's executor thread, or on a host thread that waits for them: it
// takes the queue over instead of sleeping, unless the executor is at work on it. One thread
// at a time owns the queue's head, so that the order stays.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include "runtime/command.h"
#include "runtime/failures.h"

namespace kevra_cpu {

struct Capture;

// How a stream stands to the null stream of its device.
enum class StreamKind { null, blocking, non_blocking };

// Whether the executor is to be woken, or the caller is about to wait and runs the work itself.
enum class Start { executor, waiter };

class Stream : public std::enable_shared_from_this<Stream> {
 public:
  Stream(int device, StreamKind kind) : device(device), kind(kind) {}

  const int device;
  const StreamKind kind;
  FailureList failures;

  // Queues the command and returns its number. Every point in it must have been submitted
  // before: waits then never form a circle.
  uint64_t submit(Command command, Start start);
  // Returns when the command of that number is done.
  void wait(uint64_t number);
  uint64_t submitted() const { return submitted_.load(std::memory_order_acquire); }
  bool idle() const { return completed() == submitted(); }
  // The executor ends once the queue has run empty.
  void close();
  bool closed() const { return closed_.load(std::memory_order_acquire); }

  // The capture that the stream is part of; null outside one.
  std::shared_ptr<Capture> capture();
  void set_capture(std::shared_ptr<Capture> capture);

 private:
  uint64_t completed() const { return completed_.load(std::memory_order_acquire); }
  void start_executor();
  void serve();
  void run_owned(std::unique_lock<std::mutex>& lock, uint64_t last);
  void wake_executor();

  std::mutex mutex_;  // guards what follows up to `closed_`, of atomics their writes
  std::deque<Command> queue_;
  bool owned_ = false;  // a thread runs commands
  bool executor_running_ = false;
  bool executor_asleep_ = false;
  uint64_t wanted_ = UINT64_MAX;  // the lowest number that a sleeping waiter needs
  std::condition_variable work_;  // for the executor
  std::condition_variable done_;  // for waiters
  std::atomic<uint64_t> submitted_{0};
  std::atomic<uint64_t> completed_{0};
  std::atomic<bool> closed_{false};

  std::atomic<bool> capturing_{false};  // spares the lock below on streams outside captures
  std::mutex capture_mutex_;
  std::shared_ptr<Capture> capture_;
};

}  // namespace kevra_cpu
