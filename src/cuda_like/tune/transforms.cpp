// The tuners of Fourier transforms of rows, both directions each.
#include "cuda_like/ops/fft.h"
#include "cuda_like/ops/fft_route.h"
#include "cuda_like/ops/guards.h"
#include "cuda_like/ops/rfft.h"
#include "cuda_like/ops/rfft_route.h"
#include "cuda_like/tune/candidates.h"
#include "cuda_like/tune/sizes.h"
#include "cuda_like/tune/tune.h"

namespace kevra::tune {
namespace {

constexpr int kLeastLength = 4;  // shorter rows are a thread's work: nothing to choose

void check_rows(const char* op, const RowsToTune& rows, const RunCounts& counts) {
  check_counts(op, counts);
  ops::require_int32(op, "batch", rows.batch, 1);
  ops::require_int32(op, "n", rows.n, 1);
  select_device(rows.device);
}

}  // namespace

std::optional<BothWays> tune_fft(const RowsToTune& rows, const RunCounts& counts) {
  check_rows("fft", rows, counts);
  ops::FftCall call{.x = rows.x,
                    .out = nullptr,
                    .rows = rows.batch,
                    .n = static_cast<int>(rows.n),
                    .half = is_half(rows.prec),
                    .pair = rows.prec == 3,
                    .device = rows.device};
  const ops::FftShape shape{call.n, rows.prec == 2, call.inverse, call.half, call.pair};
  if (call.n < kLeastLength || ops::fft_form_by_size(shape, device_shared_limit(call.device))) {
    return std::nullopt;
  }
  const DeviceBuffer result(bytes_of("fft", {2, element_bytes(rows.prec), rows.n, rows.batch}),
                            nullptr);
  call.out = result.p;
  const auto candidates = fft_candidates(call.n, call.half);
  const auto one_way = [&](bool inverse) {
    call.inverse = inverse;
    return fastest(candidates, call.device, counts, [&](const ShapeHint& hint) {
      call.override = &hint;
      rows.prec == 2 ? ops::fft_dispatch<double>(call) : ops::fft_dispatch<float>(call);
    });
  };
  const Winner forward = one_way(false);
  return BothWays{forward, one_way(true)};
}

std::optional<BothWays> tune_rfft(const RowsToTune& rows, const RunCounts& counts) {
  check_rows("rfft", rows, counts);
  ops::RfftCall call{.x = nullptr,
                     .out = nullptr,
                     .rows = rows.batch,
                     .n = static_cast<int>(rows.n),
                     .half = is_half(rows.prec),
                     .device = rows.device};
  const ops::RfftShape shape{call.n, rows.prec == 2, call.inverse, call.half};
  if (call.n < kLeastLength || ops::rfft_form_by_size(shape, device_shared_limit(call.device))) {
    return std::nullopt;
  }
  const int64_t elem = element_bytes(rows.prec);
  const DeviceBuffer bins(bytes_of("rfft", {2, elem, rows.n / 2 + 1, rows.batch}), nullptr);
  const DeviceBuffer reals(bytes_of("rfft", {elem, rows.n, rows.batch}), nullptr);
  // What only half storage has is not among the kernels of real rows.
  const auto candidates = fft_candidates(shape.rows().length(), false);
  const auto one_way = [&](bool inverse) {
    call.inverse = inverse;
    call.x = inverse ? bins.p : rows.x;
    call.out = inverse ? reals.p : bins.p;
    return fastest(candidates, call.device, counts, [&](const ShapeHint& hint) {
      call.override = &hint;
      rows.prec == 2 ? ops::rfft_dispatch<double>(call) : ops::rfft_dispatch<float>(call);
    });
  };
  const Winner forward = one_way(false);
  return BothWays{forward, one_way(true)};
}

}  // namespace kevra::tune
