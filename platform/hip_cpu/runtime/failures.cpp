#include "runtime/failures.h"

#include <algorithm>
#include <set>

#include "platform/common/abi.h"

using namespace kevra_platform;

namespace kevra_cpu {
namespace {

std::atomic<const char*> launch_text{"unspecified launch failure"};

// Texts are kept for ever, as callers hold on to the pointer; equal ones are kept once.
void set_launch_text(const std::string& report) {
  static std::mutex& mutex = *new std::mutex;
  static std::set<std::string>& kept = *new std::set<std::string>;
  const std::lock_guard lock(mutex);
  const auto text = kept.insert("unspecified launch failure: " + report).first;
  launch_text.store(text->c_str(), std::memory_order_release);
}

}  // namespace

void FailureList::add(std::string report) {
  auto failure = std::make_shared<LaunchFailure>();
  failure->report = std::move(report);
  const std::lock_guard lock(mutex_);
  failures_.push_back(std::move(failure));
  filled_.store(true, std::memory_order_release);
}

void FailureList::adopt(FailureList& other) {
  if (this == &other || other.empty()) return;
  std::unique_lock theirs(other.mutex_);
  const auto adopted = other.failures_;
  theirs.unlock();
  const std::lock_guard lock(mutex_);
  for (const auto& failure : adopted) {
    const bool known = std::find(failures_.begin(), failures_.end(), failure) != failures_.end();
    if (!known && !failure->told) failures_.push_back(failure);
  }
  filled_.store(!failures_.empty(), std::memory_order_release);
}

int FailureList::take() {
  if (empty()) return success;
  std::vector<std::shared_ptr<LaunchFailure>> taken;
  {
    const std::lock_guard lock(mutex_);
    taken.swap(failures_);
    filled_.store(false, std::memory_order_release);
  }
  int status = success;
  for (const auto& failure : taken) {
    if (failure->told.exchange(true)) continue;
    set_launch_text(failure->report);
    status = launch_failure;
  }
  return status;
}

const char* error_text(int code) {
  return code == launch_failure ? launch_text.load(std::memory_order_acquire) : status_text(code);
}

}  // namespace kevra_cpu
