// The vocabulary that every generated source begins with: integer and address-space names, the
// complex type and its arithmetic, the padded-index macros, reflection at the signal's ends.
#pragma once

#include <string>

#include "codegen/backend.h"
#include "codegen/stft_config.h"

namespace kevra::codegen {

// `I64`, and `TG` and `DEV`, which stand before pointers into shared and into device memory.
std::string i64_prelude(const Backend& backend);
// The above, `cplx` and `cmk`, `cadd`, `csub`, `cmul`.
std::string complex_prelude(const Backend& backend, int prec);
// The same vocabulary over two rows at once, one in each lane of a `__half2`, and `iot`.
std::string packed_prelude(const Backend& backend);
// `iot`, the type of complex data in device memory.
std::string storage_typedef(const Backend& backend, int compute, int storage);

// SHP(i): where element i stands in shared memory. Padding puts one free slot behind every 2^k
// elements (k = 4 when only switched on), so that strides of a power of two spread over the banks.
std::string shp_define(bool on);
std::string shp_define_shift(int k);
// The form of the frame kernels; k = 0 is no padding.
std::string shp_define_spaced(int k);
// RSP(i): the same for arrays of rows. Guarded, since several emitters of one kernel may want it.
std::string rsp_define(bool on);

// refl(pos): from a position of the padded signal to a sample, the edge not repeated. SIG_LEN must
// be defined.
std::string reflect_prelude(int pad);

// The head of the frame kernels that load in bit-reversed order, up to and including refl.
std::string schedule_prelude(const Backend& backend, const StftConfig& config);

}  // namespace kevra::codegen
