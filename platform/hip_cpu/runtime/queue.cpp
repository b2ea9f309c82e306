#include "runtime/queue.h"

#include "platform/common/abi.h"
#include "runtime/capture.h"
#include "runtime/device.h"

using namespace kevra_platform;

namespace kevra_cpu {
namespace {

uint64_t submit(Stream& stream, Work work, std::vector<Point> after, Start start) {
  for (Point& point : device_at(stream.device)->legacy_points(stream)) {
    after.push_back(std::move(point));
  }
  return stream.submit({.after = std::move(after), .work = std::move(work)}, start);
}

}  // namespace

uint64_t enqueue(Stream& stream, Work work, std::vector<Point> after) {
  if (const auto capture = stream.capture()) {
    record(*capture, std::move(work));
    return 0;
  }
  return submit(stream, std::move(work), std::move(after), Start::executor);
}

int finish(Stream& stream, Work work) {
  if (const auto capture = stream.capture()) {
    invalidate(*capture);
    return capture_unsupported;
  }
  stream.wait(submit(stream, std::move(work), {}, Start::waiter));
  return stream.failures.take();
}

void drain_device(int device) {
  for (const auto& stream : device_at(device)->streams()) stream->wait(stream->submitted());
}

int finish_device(int device) {
  int status = success;
  for (const auto& stream : device_at(device)->streams()) {
    stream->wait(stream->submitted());
    if (const int failed = stream->failures.take()) status = failed;
  }
  return status;
}

}  // namespace kevra_cpu
