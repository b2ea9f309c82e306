// Times the variants of an operation on the device and keeps the fastest.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

#include "cuda_like/device.h"
#include "cuda_like/hints.h"

namespace kevra::tune {

// Memory as large as the device's cache: what fills it leaves nothing of an earlier run there.
struct FlushBuffer {
  std::optional<DeviceBuffer> buf;
  size_t bytes = 0;
};
// Of a device that has been selected; made at its first use and kept for good.
FlushBuffer& flush_buffer(int device);

// The fastest of N runs in milliseconds, each after a flush. `run` queues its launches on the null
// stream; nothing but them lies between a run's two events. Waits for the device.
float time_kernel(FlushBuffer& fl, const std::function<void()>& run, int N);

struct RunCounts {
  int iters;   // at most, in the second of a candidate's two measurements
  int warmup;  // in the first
};
// Throws std::invalid_argument, naming `op`, for counts below 0 or out of all reason.
void check_counts(const char* op, const RunCounts& counts);

struct Winner {
  ShapeHint hint;  // all zero: what the dispatcher does unasked
  float ms = 1e30f;

  // A tie goes to the earlier offer.
  void offer(const ShapeHint& candidate, float candidate_ms);
};

// `run` queues the operation under the hint that it is given. A candidate that it throws for ends
// the search.
Winner fastest(const std::vector<ShapeHint>& candidates, int device, const RunCounts& counts,
               const std::function<void(const ShapeHint&)>& run);

}  // namespace kevra::tune
