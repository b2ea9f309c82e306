// Which kernel a complex transform takes. Pure functions of size, precision, hint and the
// device's shared memory; nothing here touches a device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "codegen/kernels/fft.h"
#include "codegen/kernels/fft_register.h"
#include "codegen/stft_config.h"

namespace kevra::ops {

inline constexpr int kBlockLimit = 1024;  // threads

// Bits of a hint's `var`.
inline constexpr int kVarRadix25 = 1;
inline constexpr int kVarHalfExchange = 2;
inline constexpr int kVarPadded = 4;
inline constexpr int kVarFlipLayout = 8;

// More values than this in one thread would spill on every GPU there is.
inline constexpr int kLargestEpt = 32;

// The radices of a register kernel: `first`, then the largest up to `most` that divide what is
// left of n.
std::vector<int> peel_radices(int n, int first, int most);

struct FftShape {
  int n;
  bool wide;  // the double twin
  bool inverse;
  bool half;  // 16-bit storage
  bool pair;  // two rows packed into half arithmetic where a kernel has it

  int storage() const { return wide ? 2 : half ? 0 : 1; }
  int64_t complex_bytes() const { return wide ? 16 : 8; }
};

enum class FftForm { kBluestein, kFourStep, kTwoPass, kThreePass, kPair, kRegister, kShared };

// Words for messages.
const char* fft_form_name(FftForm form);

// A kernel that keeps its rows in registers.
struct RegisterFft {
  int ept = 0;  // elements per thread
  std::vector<int> radices;
  int rows = 0;                // per block
  bool window_layout = false;  // exchange through per-thread windows
  bool half_exchange = false;  // the exchange buffer holds halves
  size_t shared_bytes = 0;
};

struct FftRoute {
  FftForm form;
  RegisterFft registers;             // of kTwoPass, kThreePass, kPair, kRegister
  codegen::ComplexFftKernel shared;  // of kShared
};

// The kernel of one of the four register forms.
codegen::RegisterFftKernel register_kernel(const FftShape& shape, const FftRoute& route);

// The form of sizes that leave for another path by n alone: no hint steers them.
std::optional<FftForm> fft_form_by_size(const FftShape& shape, int64_t shared_limit);

// A hint that cannot be honoured is lowered or passed over; it never fails a transform.
FftRoute route_fft(const FftShape& shape, const codegen::ShapeHint& hint, int64_t shared_limit);

}  // namespace kevra::ops
