// Stream capture: commands recorded instead of run, and the graphs made of them.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "runtime/command.h"

namespace kevra_cpu {

class Stream;

// One capture in progress. The streams that joined it record into one list, in the order of
// their calls: a replay in that order respects every event between them.
struct Capture {
  std::mutex mutex;
  std::vector<std::shared_ptr<Stream>> streams;  // the one that began it first
  std::vector<Work> steps;
  bool valid = true;
  bool ended = false;
};

struct Graph {
  std::shared_ptr<const CommandList> commands;
};

// What hipGraphInstantiate makes of a graph, which may then be destroyed.
struct ExecutableGraph {
  std::shared_ptr<const CommandList> commands;
};

// 0, or 900 for a null stream, 401 for one that is capturing.
int begin_capture(const std::shared_ptr<Stream>& stream);
// 0, or 401 for a stream that began no capture, 901 for an invalid capture.
int end_capture(Stream& stream, std::shared_ptr<Graph>* out);

void record(Capture& capture, Work work);
void invalidate(Capture& capture);
// Ends the capture without a graph, as one of its streams goes away.
void abandon(Capture& capture);
// The stream records from now on, as it waits for an event of the capture. 0, or 907 when the
// capture has ended, 900 for a null stream, 905 for a stream of another capture.
int join(const std::shared_ptr<Capture>& capture, const std::shared_ptr<Stream>& stream);

}  // namespace kevra_cpu
