// Graphs: work recorded once and replayed, with none of the host's cost of queueing it anew.
#include "cuda_like/device.h"
#include "rocm/device_pool.h"
#include "rocm/hip_dl.h"

namespace kevra {
namespace {

using hip_dl::api;

constexpr unsigned kStreamNonBlocking = 1;
constexpr int kCaptureRelaxed = 2;

// What follows holds null where the platform made nothing.
struct RecordingStream {
  RecordingStream() {
    if (api().StreamCreateWithFlags(&handle, kStreamNonBlocking) != 0) handle = nullptr;
  }
  ~RecordingStream() {
    if (handle != nullptr) api().StreamDestroy(handle);
  }
  RecordingStream(const RecordingStream&) = delete;
  RecordingStream& operator=(const RecordingStream&) = delete;

  stream_t handle = nullptr;
};

struct Event {
  Event() {
    if (eventCreate(&handle) != 0) handle = nullptr;
  }
  ~Event() {
    if (handle != nullptr) api().EventDestroy(handle);
  }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  event_t handle = nullptr;
};

struct ExecutableGraph {
  explicit ExecutableGraph(graph_exec_t executable) : handle(executable) {}
  ~ExecutableGraph() {
    if (handle != nullptr) api().GraphExecDestroy(handle);
  }
  ExecutableGraph(const ExecutableGraph&) = delete;
  ExecutableGraph& operator=(const ExecutableGraph&) = delete;

  graph_exec_t handle;
};

// Null where anything failed; then nothing of `work` runs.
graph_exec_t record(const std::function<void(stream_t)>& work, stream_t on) {
  if (api().StreamBeginCapture(on, kCaptureRelaxed) != 0) return nullptr;
  bool whole = true;
  try {
    work(on);
  } catch (
      ...) {  // the caller does the work without a graph, and meets the failure there if it lasts
    whole = false;
  }
  hip_dl::graph_t graph = nullptr;
  whole = api().StreamEndCapture(on, &graph) == 0 && graph != nullptr && whole;
  graph_exec_t executable = nullptr;
  if (whole && api().GraphInstantiate(&executable, graph, nullptr, nullptr, 0) != 0) {
    executable = nullptr;
  }
  if (graph != nullptr) api().GraphDestroy(graph);
  return executable;
}

}  // namespace

int64_t replay_recorded(const std::function<void(stream_t)>& work, int64_t times, stream_t stream) {
  const RecordingStream own;
  if (own.handle == nullptr) return 0;
  const StreamLoan scratch(own.handle, stream);
  const ExecutableGraph graph(record(work, own.handle));
  const Event event;
  if (graph.handle == nullptr || event.handle == nullptr) return 0;
  if (eventRecord(event.handle, stream) != 0) return 0;
  if (streamWaitEvent(own.handle, event.handle) != 0) return 0;

  int64_t replayed = 0;
  while (replayed < times && graphLaunch(graph.handle, own.handle) == 0) ++replayed;

  // Should the wait below fail, then what uses the scratch next is behind the replays all the same.
  if (eventRecord(event.handle, own.handle) == 0) streamWaitEvent(stream, event.handle);
  // The graph must outlive its replays, and so must the loan.
  KEVRA_CHECK(streamSynchronize(own.handle));
  return replayed;
}

}  // namespace kevra
