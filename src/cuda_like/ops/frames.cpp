#include "cuda_like/ops/frames.h"

#include <bit>
#include <cmath>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>

#include "codegen/kernels/spectrum_output.h"
#include "cuda_like/ops/guards.h"

namespace kevra::ops {

int64_t frame_count(int64_t length, int64_t n_fft, int64_t hop, int64_t pad, const char* op) {
  require_int32(op, "n_fft", n_fft, 2);
  require_int32(op, "hop", hop, 1);
  const std::string name = op;
  if (pad >= 1 && length <= pad) {
    throw std::invalid_argument(name + ": signal length must exceed pad for reflect padding (" +
                                std::to_string(length) + " samples, pad " + std::to_string(pad) +
                                "); pass a longer signal or center=False");
  }
  if (length + 2 * pad < n_fft) {
    throw std::invalid_argument(name + ": signal too short for n_fft (" + std::to_string(length) +
                                " samples, n_fft " + std::to_string(n_fft) + ")");
  }
  // The mirror of the last position is 2 length - 2 + pad minus it, formed in 32 bits.
  require_at_most(op, "length", length, std::numeric_limits<int>::max() / 2 - pad);
  return (length + 2 * pad - n_fft) / hop + 1;
}

void check_frame_batch(const char* op, const char* kernel, int64_t batch) {
  constexpr int64_t kGridLimit = 65535;
  require_at_least(op, "batch", batch, 1);
  if (batch > kGridLimit) {
    throw std::invalid_argument(
        std::string(kernel) + ": batch exceeds grid.y limit: " + std::to_string(batch) +
        " rows, at most " + std::to_string(kGridLimit) + "; pass them in several calls");
  }
}

void check_eps(const char* op, int form, double eps) {
  if (form == codegen::kDecibelForm && !(eps >= 0 && std::isfinite(eps))) {
    throw std::invalid_argument(std::string(op) + ": eps is " + shown(eps) +
                                ", must be finite and not below 0");
  }
}

uint64_t eps_word(int form, double eps) {
  return form == codegen::kDecibelForm ? std::bit_cast<uint64_t>(eps) : 0;
}

std::string shown(double value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

}  // namespace kevra::ops
