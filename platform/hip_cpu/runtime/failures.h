// Launches that failed after they were queued: told once, by the next call that waits.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kevra_cpu {

struct LaunchFailure {
  std::string report;
  std::atomic<bool> told{false};
};

// The failures that a wait on one stream has to tell: its own, and those of streams whose
// work it has waited for. A failure may stand in several lists; who tells it first ends it.
class FailureList {
 public:
  void add(std::string report);
  void adopt(FailureList& other);
  // 0, or 719 after making the newest untold report the one that error_text(719) gives.
  int take();
  bool empty() const { return !filled_.load(std::memory_order_acquire); }

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<LaunchFailure>> failures_;
  std::atomic<bool> filled_{false};
};

// The text of a HIP code. It stays valid for ever.
const char* error_text(int code);

}  // namespace kevra_cpu
