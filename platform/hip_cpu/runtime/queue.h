// How commands get onto streams: queued, recorded into a capture, or run to their end.
#pragma once

#include <memory>

#include "runtime/stream.h"

namespace kevra_cpu {

// Queues the work, or records it when the stream is capturing. Returns the command's number,
// 0 for a recorded one.
uint64_t enqueue(Stream& stream, Work work, std::vector<Point> after = {});

// Waits for all work queued on the stream so far, then tells a failed launch. Work given along
// is done behind it. 900 when the stream is capturing, which ends in an invalid capture.
int finish(Stream& stream, Work work = {});

// The same for every stream of a device.
int finish_device(int device);
// Waits without telling failures, which the next call that reports errors still has to tell.
void drain_device(int device);

}  // namespace kevra_cpu
