// What a spectrum kernel stores of a bin: the complex value, or a real number made from it.
#pragma once

#include <string>

#include "codegen/kernel_writer.h"

namespace kevra::codegen {

// The forms of output, by the codes that callers and hints use.
inline constexpr int kComplexForm = 0;
inline constexpr int kMagnitudeForm = 1;
inline constexpr int kPowerForm = 2;
inline constexpr int kDecibelForm = 3;  // 10 log10(power + EPS)

// EPS, which the decibel form wants; nothing for the others.
std::string eps_define(int form, double eps);
// The part of a kernel's key that stands for EPS: the bits, since the text holds all of them.
std::string eps_key(int form, double eps);

// The type of an output array: pairs for the complex form, scalars for the others.
std::string output_type(const Backend& backend, int form, int storage);
size_t output_bytes(int form, int storage);

// Stores one bin in `storage` precision. `re` and `im` are texts in the compute type and may be
// used more than once.
void emit_output_element(KernelWriter& w, int form, int storage, const std::string& destination,
                         const std::string& re, const std::string& im);

}  // namespace kevra::codegen
