// The tuner of the constant-Q transform.
#include "cuda_like/tune/sizes.h"
#include "cuda_like/tune/tune.h"

namespace kevra::tune {

Winner tune_cqt(ops::CqtCall call, int prec, const RunCounts& counts) {
  check_counts(call.op, counts);
  ops::check_cqt(call);
  select_device(call.device);
  constexpr int64_t kLargestElement = 16;
  const DeviceBuffer result(
      bytes_of(call.op, {call.design.n_bins, call.design.frames, call.batch, kLargestElement}),
      nullptr);
  call.out = result.p;
  return fastest({{.core = 0}, {.core = 1}}, call.device, counts, [&](const ShapeHint& hint) {
    call.override = &hint;
    ops::cqt_resident(call, prec);
  });
}

}  // namespace kevra::tune
