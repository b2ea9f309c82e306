// The tuners: each runs an operation's variants at one exact shape and tells the fastest. They
// store nothing and leave plans and hints as they are.
//
// The call's input is read, its result goes to memory of the tuner's own. Everything runs on the
// null stream of the call's device. Nothing is measured, and the answer is empty, where the shape
// takes a path that no hint steers. Throws std::invalid_argument for what the operation refuses,
// before anything is queued.
#pragma once

#include <cstdint>
#include <optional>

#include "cuda_like/device.h"
#include "cuda_like/ops/cqt.h"
#include "cuda_like/ops/istft.h"
#include "cuda_like/ops/mel.h"
#include "cuda_like/ops/stft.h"
#include "cuda_like/tune/measure.h"

namespace kevra::tune {

// prec: as the resident form of the operation takes it.
std::optional<Winner> tune_stft(ops::StftCall call, int prec, const RunCounts& counts);
std::optional<Winner> tune_istft(ops::IstftCall call, int prec, const RunCounts& counts);
std::optional<Winner> tune_mel(ops::MelCall call, int prec, const RunCounts& counts);

struct BothWays {
  Winner forward;
  Winner inverse;
};
// x is batch rows of n elements.
struct RowsToTune {
  devptr_t x;
  int64_t batch;
  int64_t n;
  int prec;
  int device;
};
std::optional<BothWays> tune_fft(const RowsToTune& rows, const RunCounts& counts);
std::optional<BothWays> tune_rfft(const RowsToTune& rows, const RunCounts& counts);

// Core 0 is the fused path, core 1 the one through device memory.
Winner tune_cqt(ops::CqtCall call, int prec, const RunCounts& counts);

}  // namespace kevra::tune
