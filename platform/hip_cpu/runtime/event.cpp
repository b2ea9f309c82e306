#include "runtime/event.h"

#include "platform/common/abi.h"
#include "runtime/queue.h"

using namespace kevra_platform;

namespace kevra_cpu {

int record_event(Event& event, const std::shared_ptr<Stream>& stream) {
  if (event.device != stream->device) return invalid_handle;
  Event::Recorded recorded;
  if (const auto capture = stream->capture()) {
    recorded.capture = capture;
    recorded.captured = true;
  } else {
    recorded.time = std::make_shared<EventTime>();
    recorded.point = {stream, enqueue(*stream, recorded.time)};
  }
  event.set(std::move(recorded));
  return success;
}

int wait_for_event(const std::shared_ptr<Stream>& stream, const Event& event) {
  Event::Recorded recorded = event.recorded();
  if (recorded.captured) {
    const auto capture = recorded.capture.lock();
    return capture ? join(capture, stream) : static_cast<int>(captured_event);
  }
  if (!recorded.point.stream) return success;
  if (stream->capture()) return capture_isolation;
  enqueue(*stream, {}, {std::move(recorded.point)});
  return success;
}

int elapsed_time(const Event& start, const Event& stop, float* milliseconds) {
  const Event::Recorded first = start.recorded();
  const Event::Recorded second = stop.recorded();
  if (start.device != stop.device) return invalid_handle;
  if (first.captured || second.captured) return captured_event;
  if (!first.time || !second.time) return invalid_value;
  const int64_t began = first.time->nanoseconds.load(std::memory_order_acquire);
  const int64_t ended = second.time->nanoseconds.load(std::memory_order_acquire);
  if (began == 0 || ended == 0) return not_ready;
  *milliseconds = static_cast<float>(static_cast<double>(ended - began) * 1e-6);
  return success;
}

}  // namespace kevra_cpu
