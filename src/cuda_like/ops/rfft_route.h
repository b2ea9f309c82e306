// Which kernel a real transform takes. Pure functions of size, precision, hint and the device's
// shared memory; nothing here touches a device.
#pragma once

#include <cstdint>
#include <optional>

#include "codegen/kernels/rfft.h"
#include "codegen/kernels/rfft_register.h"
#include "codegen/kernels/rfft_tiny.h"
#include "codegen/stft_config.h"

namespace kevra::ops {

struct RfftShape {
  int n;
  bool wide;  // the double twin
  bool inverse;
  bool half;  // 16-bit storage

  int storage() const { return wide ? 2 : half ? 0 : 1; }
  codegen::RealRows rows() const { return {n, wide ? 2 : 1, storage(), inverse}; }
};

enum class RfftForm { kBluestein, kTiny, kFourStep, kRegister, kShared };

// Words for messages.
const char* rfft_form_name(RfftForm form);

struct RfftRoute {
  RfftForm form;
  codegen::RegisterRealFftKernel registers;  // of kRegister
  codegen::RealFftKernel shared;             // of kShared
};

// Whether an odd n has stages of its own: it fits shared memory beside its scratch, and its radices
// divide one another or are small or primes whose convolution has small radices.
bool odd_native(int n, bool wide, int64_t shared_limit);

// The form of sizes that leave for another path by n alone: no hint steers them.
std::optional<RfftForm> rfft_form_by_size(const RfftShape& shape, int64_t shared_limit);

// A hint that cannot be honoured is lowered or passed over; it never fails a transform.
RfftRoute route_rfft(const RfftShape& shape, const codegen::ShapeHint& hint, int64_t shared_limit);

}  // namespace kevra::ops
