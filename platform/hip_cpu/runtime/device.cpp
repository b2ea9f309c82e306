#include "runtime/device.h"

#include <mutex>

#include "common/settings.h"
#include "runtime/handles.h"

using namespace kevra_platform;

namespace kevra_cpu {
namespace {

thread_local int current_index = 0;

// A point that has been reached and has no failure to tell needs no waiting.
void add_point(std::vector<Point>& points, const std::shared_ptr<Stream>& stream) {
  if (!stream->idle() || !stream->failures.empty()) points.push_back({stream, stream->submitted()});
}

}  // namespace

Device::Device(int index)
    : index(index), null_stream(std::make_shared<Stream>(index, StreamKind::null)) {}

std::shared_ptr<Stream> Device::create_stream(StreamKind kind) {
  auto stream = std::make_shared<Stream>(index, kind);
  const std::unique_lock lock(mutex_);
  // Destroyed streams stay until their work is done; what failed there is told elsewhere.
  std::erase_if(streams_, [&](const std::shared_ptr<Stream>& old) {
    if (!old->closed() || !old->idle()) return false;
    null_stream->failures.adopt(old->failures);
    return true;
  });
  streams_.push_back(stream);
  return stream;
}

std::vector<std::shared_ptr<Stream>> Device::streams() {
  const std::shared_lock lock(mutex_);
  std::vector<std::shared_ptr<Stream>> all = streams_;
  all.push_back(null_stream);
  return all;
}

std::vector<Point> Device::legacy_points(const Stream& stream) {
  std::vector<Point> points;
  if (stream.kind == StreamKind::blocking) add_point(points, null_stream);
  if (stream.kind == StreamKind::null) {
    const std::shared_lock lock(mutex_);
    for (const auto& other : streams_) {
      if (other->kind == StreamKind::blocking) add_point(points, other);
    }
  }
  return points;
}

Device* device_at(int index) {
  static std::vector<std::unique_ptr<Device>>& devices = [&]() -> auto& {
    auto& made = *new std::vector<std::unique_ptr<Device>>;
    for (int i = 0; i < settings().devices; ++i) made.push_back(std::make_unique<Device>(i));
    return made;
  }();
  const bool known = index >= 0 && index < static_cast<int>(devices.size());
  return known ? devices[static_cast<size_t>(index)].get() : nullptr;
}

Device* current_device() {
  return device_at(current_index);
}

int current_device_index() {
  return current_index;
}

int set_current_device(int index) {
  const int devices = settings().devices;
  if (devices == 0) return no_device;
  if (index < 0 || index >= devices) return invalid_device;
  current_index = index;
  return success;
}

std::shared_ptr<Stream> resolve_stream(void* handle) {
  if (handle) return HandleTable<Stream>::instance().find(handle);
  Device* device = current_device();
  return device ? device->null_stream : nullptr;
}

}  // namespace kevra_cpu
