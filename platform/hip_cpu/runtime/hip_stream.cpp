// Exported: streams, events, captures and graphs.
#include "platform/common/entry.h"
#include "runtime/capture.h"
#include "runtime/device.h"
#include "runtime/event.h"
#include "runtime/handles.h"
#include "runtime/queue.h"

using namespace kevra_cpu;
using namespace kevra_platform;

namespace {

using Streams = HandleTable<Stream>;
using Graphs = HandleTable<Graph>;
using ExecutableGraphs = HandleTable<ExecutableGraph>;

}  // namespace

KEVRA_HIP_EXPORT int hipStreamCreateWithFlags(void** out, unsigned flags) {
  return entry("hipStreamCreateWithFlags", [&]() -> int {
    if (!out || flags > stream_non_blocking) return invalid_value;
    Device* device = current_device();
    if (!device) return no_device;
    const auto kind = flags ? StreamKind::non_blocking : StreamKind::blocking;
    *out = Streams::instance().insert(device->create_stream(kind));
    return success;
  });
}

// Returns at once; queued work is still done.
KEVRA_HIP_EXPORT int hipStreamDestroy(void* handle) {
  return entry("hipStreamDestroy", [&]() -> int {
    const auto stream = Streams::instance().remove(handle);
    if (!stream) return invalid_handle;
    if (const auto capture = stream->capture()) abandon(*capture);
    stream->close();
    return success;
  });
}

KEVRA_HIP_EXPORT int hipStreamSynchronize(void* handle) {
  return entry("hipStreamSynchronize", [&] {
    return on_stream(handle, [](const auto& stream) { return finish(*stream); });
  });
}

KEVRA_HIP_EXPORT int hipStreamBeginCapture(void* handle, int mode) {
  return entry("hipStreamBeginCapture", [&] {
    return on_stream(handle, [&](const auto& stream) -> int {
      // The other modes forbid calls that this runtime would let through.
      return mode == capture_relaxed ? begin_capture(stream) : capture_unsupported;
    });
  });
}

KEVRA_HIP_EXPORT int hipStreamEndCapture(void* handle, void** out) {
  return entry("hipStreamEndCapture", [&]() -> int {
    if (!out) return invalid_value;
    *out = nullptr;
    return on_stream(handle, [&](const auto& stream) -> int {
      std::shared_ptr<Graph> graph;
      if (const int failed = end_capture(*stream, &graph)) return failed;
      *out = Graphs::instance().insert(std::move(graph));
      return success;
    });
  });
}

KEVRA_HIP_EXPORT int hipGraphInstantiate(void** out, void* handle, void** /*error_node*/,
                                         char* /*log*/, size_t /*log_bytes*/) {
  return entry("hipGraphInstantiate", [&]() -> int {
    const auto graph = Graphs::instance().find(handle);
    if (!out || !graph) return invalid_value;
    auto executable = std::make_shared<ExecutableGraph>();
    executable->commands = graph->commands;
    *out = ExecutableGraphs::instance().insert(std::move(executable));
    return success;
  });
}

KEVRA_HIP_EXPORT int hipGraphLaunch(void* handle, void* stream_handle) {
  return entry("hipGraphLaunch", [&]() -> int {
    const auto graph = ExecutableGraphs::instance().find(handle);
    if (!graph) return invalid_value;
    return on_stream(stream_handle, [&](const auto& stream) -> int {
      enqueue(*stream, graph->commands);
      return success;
    });
  });
}

KEVRA_HIP_EXPORT int hipGraphDestroy(void* handle) {
  return entry("hipGraphDestroy", [&]() -> int {
    return Graphs::instance().remove(handle) ? success : invalid_value;
  });
}

KEVRA_HIP_EXPORT int hipGraphExecDestroy(void* handle) {
  return entry("hipGraphExecDestroy", [&]() -> int {
    return ExecutableGraphs::instance().remove(handle) ? success : invalid_value;
  });
}

KEVRA_HIP_EXPORT int hipEventCreate(void** out) {
  return entry("hipEventCreate", [&]() -> int {
    if (!out) return invalid_value;
    const Device* device = current_device();
    if (!device) return no_device;
    *out = HandleTable<Event>::instance().insert(std::make_shared<Event>(device->index));
    return success;
  });
}

KEVRA_HIP_EXPORT int hipEventDestroy(void* handle) {
  return entry("hipEventDestroy", [&]() -> int {
    return HandleTable<Event>::instance().remove(handle) ? success : invalid_handle;
  });
}

KEVRA_HIP_EXPORT int hipEventRecord(void* handle, void* stream_handle) {
  return entry("hipEventRecord", [&]() -> int {
    const auto event = HandleTable<Event>::instance().find(handle);
    if (!event) return invalid_handle;
    return on_stream(stream_handle,
                     [&](const auto& stream) { return record_event(*event, stream); });
  });
}

KEVRA_HIP_EXPORT int hipStreamWaitEvent(void* stream_handle, void* handle, unsigned flags) {
  return entry("hipStreamWaitEvent", [&]() -> int {
    const auto event = HandleTable<Event>::instance().find(handle);
    if (!event) return invalid_handle;
    if (flags != 0) return invalid_value;
    return on_stream(stream_handle,
                     [&](const auto& stream) { return wait_for_event(stream, *event); });
  });
}

KEVRA_HIP_EXPORT int hipEventElapsedTime(float* milliseconds, void* start, void* stop) {
  return entry("hipEventElapsedTime", [&]() -> int {
    const auto first = HandleTable<Event>::instance().find(start);
    const auto second = HandleTable<Event>::instance().find(stop);
    if (!milliseconds) return invalid_value;
    if (!first || !second) return invalid_handle;
    return elapsed_time(*first, *second, milliseconds);
  });
}
