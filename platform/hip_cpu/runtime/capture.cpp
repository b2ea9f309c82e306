#include "runtime/capture.h"

#include "platform/common/abi.h"
#include "runtime/stream.h"

using namespace kevra_platform;

namespace kevra_cpu {
namespace {

// The caller holds the capture's lock.
void release_streams(Capture& capture) {
  for (const auto& member : capture.streams) member->set_capture(nullptr);
  capture.streams.clear();
  capture.ended = true;
}

}  // namespace

int begin_capture(const std::shared_ptr<Stream>& stream) {
  if (stream->kind == StreamKind::null) return capture_unsupported;
  if (stream->capture()) return illegal_state;
  auto capture = std::make_shared<Capture>();
  capture->streams.push_back(stream);
  stream->set_capture(std::move(capture));
  return success;
}

int end_capture(Stream& stream, std::shared_ptr<Graph>* out) {
  const auto capture = stream.capture();
  if (!capture) return illegal_state;
  const std::lock_guard lock(capture->mutex);
  if (capture->ended || capture->streams.front().get() != &stream) return illegal_state;
  auto graph = std::make_shared<Graph>();
  auto commands = std::make_shared<CommandList>();
  release_streams(*capture);
  if (!capture->valid) return capture_invalidated;
  commands->steps = std::move(capture->steps);
  graph->commands = std::move(commands);
  *out = std::move(graph);
  return success;
}

void record(Capture& capture, Work work) {
  const std::lock_guard lock(capture.mutex);
  capture.steps.push_back(std::move(work));
}

void invalidate(Capture& capture) {
  const std::lock_guard lock(capture.mutex);
  capture.valid = false;
}

void abandon(Capture& capture) {
  const std::lock_guard lock(capture.mutex);
  release_streams(capture);
}

int join(const std::shared_ptr<Capture>& capture, const std::shared_ptr<Stream>& stream) {
  const std::lock_guard lock(capture->mutex);
  if (capture->ended) return captured_event;
  if (stream->kind == StreamKind::null) return capture_unsupported;
  const auto present = stream->capture();
  if (present == capture) return success;
  if (present) return capture_isolation;
  capture->streams.push_back(stream);
  stream->set_capture(capture);
  return success;
}

}  // namespace kevra_cpu
