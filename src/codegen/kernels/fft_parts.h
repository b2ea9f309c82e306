// What the kernels of the complex transform have in common: the head, and rows in device memory.
#pragma once

#include <functional>
#include <string>

#include "codegen/backend.h"
#include "codegen/kernel_writer.h"

namespace kevra::codegen {

inline constexpr const char* kFftKernelName = "kevra_fft";

struct FftRows {
  int n;
  int compute;  // precision of the arithmetic: half storage computes in float
  int storage;
  bool inverse;
};

// INVSC, the scale of the inverse; nothing forward.
std::string inverse_define(const FftRows& rows, const Backend& backend);

// Everything up to the first statement: `prelude` (complex arithmetic and `iot`), `defines`, and
// the head of a kernel that takes (x, out, tw, nrows) and has `shared_type` elements in `shbuf`.
std::string fft_head(const std::string& prelude, const std::string& defines, int block,
                     const std::string& shared_type, const Backend& backend);
std::string fft_prelude(const FftRows& rows, const Backend& backend);

// The inverse conjugates where a value is loaded and where it is stored, so that one set of stages
// serves both directions. `value` is a name.
std::string loaded_value(const FftRows& rows, const std::string& value, const Backend& backend);
std::string stored_real(const FftRows& rows, const std::string& value);
std::string stored_imaginary(const FftRows& rows, const std::string& value);
std::string stored_value(const FftRows& rows, const std::string& value, const Backend& backend);

using AccessBody = std::function<void(const std::string& i)>;

// A loop of the row's threads over `count` accesses; TPF of them work on a row.
void each_access(KernelWriter& w, int count, const AccessBody& body);

// Copies 16 bytes an access into bufA past the registers where the target can, else as `plain`
// writes it. `destination` and `source` hold one `$` for the access's number.
void load_async(KernelWriter& w, int count, const char* destination, const char* source,
                const std::function<void()>& plain);

}  // namespace kevra::codegen
