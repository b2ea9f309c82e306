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
  switch (code) {
    case success:
      return "no error";
    case invalid_value:
      return "invalid argument";
    case out_of_memory:
      return "out of memory";
    case no_device:
      return "no device is present";
    case invalid_device:
      return "invalid device";
    case invalid_image:
      return "invalid code object";
    case no_binary_for_device:
      return "code object was made for another device";
    case invalid_handle:
      return "invalid handle";
    case illegal_state:
      return "operation not allowed in the present state";
    case not_found:
      return "named symbol not found";
    case not_ready:
      return "device not ready";
    case launch_failure:
      return launch_text.load(std::memory_order_acquire);
    case capture_unsupported:
      return "operation not permitted while the stream is capturing";
    case capture_invalidated:
      return "stream capture failed because of an earlier error";
    case capture_isolation:
      return "stream capture would depend on work outside of it";
    case captured_event:
      return "event was last recorded in a stream capture";
    default:
      return "unknown error";
  }
}

}  // namespace kevra_cpu
