// The devices of the process, their streams, and which device a thread works on.
#pragma once

#include <memory>
#include <shared_mutex>
#include <vector>

#include "platform/common/abi.h"
#include "runtime/stream.h"

namespace kevra_cpu {

class Device {
 public:
  explicit Device(int index);

  const int index;
  const std::shared_ptr<Stream> null_stream;

  std::shared_ptr<Stream> create_stream(StreamKind kind);
  // Every stream with work or failures to come, the null stream last.
  std::vector<std::shared_ptr<Stream>> streams();
  // What a command on `stream` has to wait for under the legacy rule: on the null stream the
  // work of all blocking streams, on a blocking stream that of the null stream.
  std::vector<Point> legacy_points(const Stream& stream);

 private:
  std::shared_mutex mutex_;
  std::vector<std::shared_ptr<Stream>> streams_;  // but for the null stream
};

// Null unless 0 <= index < the number of devices.
Device* device_at(int index);
// The calling thread's device; null when there are none.
Device* current_device();
// 0, or the error of an index that is none.
int set_current_device(int index);
int current_device_index();

// The stream behind a HIP handle, null standing for the current device's null stream.
// Null when there is no such stream.
std::shared_ptr<Stream> resolve_stream(void* handle);

// What an exported function does with the stream that it was given.
template <typename Body>
int on_stream(void* handle, Body body) {
  const std::shared_ptr<Stream> stream = resolve_stream(handle);
  if (!stream) return handle ? kevra_platform::invalid_handle : kevra_platform::no_device;
  return body(stream);
}

}  // namespace kevra_cpu
