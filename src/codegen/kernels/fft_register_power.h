// The register kernels of squares and cubes.
#pragma once

#include <string>

#include "codegen/kernels/fft_register.h"

namespace kevra::codegen {

std::string two_pass_source(const RegisterFftKernel& kernel, const Backend& backend);
std::string three_pass_source(const RegisterFftKernel& kernel, const Backend& backend);

}  // namespace kevra::codegen
