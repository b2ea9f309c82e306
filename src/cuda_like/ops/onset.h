// Onset strength: how much louder the bins of a spectrogram get from frame to frame.
#pragma once

#include <cstdint>

#include "cuda_like/device.h"
#include "cuda_like/staged.h"

namespace kevra::ops {

// Throws std::invalid_argument for sizes out of bounds.
void check_onset(int64_t batch, int64_t frames, int64_t bins);

// m is (batch, frames, bins), out (batch, frames). Nothing is queued for no frames.
void onset_strength_resident(devptr_t m, devptr_t out, int64_t batch, int64_t frames, int64_t bins,
                             int prec, int device, stream_t stream);

// s is (batch, bins, frames); the result (batch, frames).
template <class T>
PinnedArray<T> onset_strength_staged(const HostArray<T>& s);

}  // namespace kevra::ops
