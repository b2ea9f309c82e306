// NVRTC, the compiler, bound by name while the process runs.
#pragma once

#include <cstddef>
#include <string>

#include "driver/library.h"

namespace kevra_cuda {

// name, parameters. Every function returns a result; 0 is success.
#define KEVRA_CUDA_NVRTC(FUNCTION)                                                              \
  FUNCTION(nvrtcCreateProgram, void** program, const char* text, const char* name, int headers, \
           const char* const* header_texts, const char* const* header_names)                    \
  FUNCTION(nvrtcDestroyProgram, void** program)                                                 \
  FUNCTION(nvrtcCompileProgram, void* program, int count, const char* const* options)           \
  FUNCTION(nvrtcGetProgramLogSize, void* program, size_t* bytes)                                \
  FUNCTION(nvrtcGetProgramLog, void* program, char* log)                                        \
  FUNCTION(nvrtcGetCUBINSize, void* program, size_t* bytes)                                     \
  FUNCTION(nvrtcGetCUBIN, void* program, char* cubin)

KEVRA_CUDA_TABLE(Nvrtc, KEVRA_CUDA_NVRTC)

// KEVRA_CUDA_NVRTC; else the loader's search, where one that the process holds already comes
// first; else the folders of the NVRTC wheels beside this package, and of CUDA under /usr/local.
// Null, with the reason in `why`, when none serves; the next call looks again.
const Nvrtc* nvrtc(std::string& why);

}  // namespace kevra_cuda
