// How a constant-Q transform and its gradient go over the signals of the levels.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/ops/cqt_plan.h"
#include "cuda_like/window.h"

namespace kevra::ops {

// No window over the frames: any taper is the basis's.
const WindowSpec& untapered();

// One thread to a value of `width` a batch row.
void launch_rows(kernel_t fn, int64_t width, const CqtCall& call, void** args, const char* name);

// Zeros for a level's padded rows.
template <class T>
DeviceBuffer padded_zeros(const CqtStep& step, const CqtCall& call);
// The level's signal, n samples a row, between those zeros.
template <class T>
void place_signal(const CqtStep& step, int64_t n, const CqtCall& call, devptr_t signal,
                  devptr_t padded);

// The spectra of the frames of padded rows, (batch, frames, bins).
template <class T>
DeviceBuffer queue_spectra(const CqtStep& step, const CqtCall& call, devptr_t padded);

// The next level's signal, from n samples a row to `on`.
template <class T>
DeviceBuffer queue_decimation(kernel_t decimate, devptr_t taps, int64_t n, int64_t on,
                              const CqtCall& call, devptr_t signal);

}  // namespace kevra::ops
