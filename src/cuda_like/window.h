// The window argument of every frame operation, and its table on the device.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cuda_like/device.h"

namespace kevra {

// A named window, or samples of the caller's, borrowed for the length of a call.
struct WindowSpec {
  static constexpr int kArray = -1;

  uint64_t key;  // equal for equal windows; every plan and table over a window mixes it in
  int kind;      // window_code, or kArray
  const double* samples = nullptr;
  int64_t count = 0;
};

// The code of a name. Throws std::invalid_argument for an unknown one.
int window_code(const std::string& name);
WindowSpec named_window(const std::string& name);
WindowSpec array_window(const double* samples, int64_t count);

// n_fft values: the window of win_length samples, zeros around it. Named windows are periodic. An
// array has to hold win_length samples; std::invalid_argument otherwise, and for a win_length
// outside 1 .. n_fft.
std::vector<double> build_window(const WindowSpec& window, int64_t win_length, int64_t n_fft);

// What build_window would refuse for a window as long as the frame.
void check_window(const WindowSpec& window, int64_t n_fft);

// The n_fft values on the current device in the precision of the arithmetic.
devptr_t window_table(const WindowSpec& window, int n_fft, int prec);

}  // namespace kevra
