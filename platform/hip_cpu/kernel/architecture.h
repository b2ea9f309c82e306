// What a code object made on this machine runs on.
#pragma once

#include <string>

#include "platform/common/image.h"

namespace kevra_cpu {

// "cpu-", the compiler's own name of the processor, a short hash of the instruction sets that it
// found (machines of one name differ in them), and "-check" in check mode or "-blocks" where
// kernels are made without lanes. It decides whether a cached code object may be loaded. Without a
// compiler the name is made of the hash of the processor's own flags.
std::string architecture_name();

// What code objects made here are marked with.
kevra_platform::ImageTag code_object_tag();

}  // namespace kevra_cpu
