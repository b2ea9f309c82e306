// What a code object made on this machine runs on.
#pragma once

#include <string>

namespace kevra_cpu {

// "cpu-", the compiler's own name of the processor, a short hash of the instruction sets that it
// found (machines of one name differ in them), and "-check" in check mode. It decides whether a
// cached code object may be loaded. Without a compiler the name is made of the hash of the
// processor's own flags.
std::string architecture_name();

}  // namespace kevra_cpu
