// Events: points in a stream's order with the time at which they were reached.
#pragma once

#include <memory>
#include <mutex>

#include "runtime/capture.h"
#include "runtime/command.h"

namespace kevra_cpu {

class Event {
 public:
  explicit Event(int device) : device(device) {}

  // What the last record left. On a capturing stream that is the capture alone, and there is
  // no time to be had.
  struct Recorded {
    Point point;
    std::shared_ptr<EventTime> time;
    std::weak_ptr<Capture> capture;
    bool captured = false;
  };

  Recorded recorded() const {
    const std::lock_guard lock(mutex_);
    return recorded_;
  }
  void set(Recorded recorded) {
    const std::lock_guard lock(mutex_);
    recorded_ = std::move(recorded);
  }

  const int device;

 private:
  mutable std::mutex mutex_;
  Recorded recorded_;
};

// 0, or 400 when event and stream belong to different devices.
int record_event(Event& event, const std::shared_ptr<Stream>& stream);

// An event that was never recorded holds nothing up. 0, or an error when a capture would be
// tied to work outside of it.
int wait_for_event(const std::shared_ptr<Stream>& stream, const Event& event);

// 0, or 1 when one was never recorded, 400 for two devices, 600 when one is not reached yet,
// 907 for a captured one.
int elapsed_time(const Event& start, const Event& stop, float* milliseconds);

}  // namespace kevra_cpu
