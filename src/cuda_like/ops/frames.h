// How a signal falls into frames.
#pragma once

#include <cstdint>
#include <string>

namespace kevra::ops {

// Samples of reflection at either end.
constexpr int64_t frame_padding(int64_t n_fft, bool center) {
  return center ? n_fft / 2 : 0;
}

// Frames of n_fft samples every `hop` in a signal padded by reflection. Throws
// std::invalid_argument, naming `op`, where there is no frame, the signal is too short to be
// reflected or too long for the kernels' 32-bit positions.
int64_t frame_count(int64_t length, int64_t n_fft, int64_t hop, int64_t pad, const char* op);

// Batch is grid y of a frame kernel, `kernel`. Throws std::invalid_argument for a batch that it has
// no rows for.
void check_frame_batch(const char* op, const char* kernel, int64_t batch);

// `eps` counts in the decibel form alone. Throws std::invalid_argument for one below 0 or not
// finite.
void check_eps(const char* op, int form, double eps);
// What of `eps` tells two plans apart.
uint64_t eps_word(int form, double eps);

// A number for a message, without idle zeros.
std::string shown(double value);

}  // namespace kevra::ops
