// The text in front of every kernel, and the version of the device's compiler: a hash of that
// text and of the compiler's own sources. Code objects of another version are refused. Both come
// from the build (compiler/embed.cmake).
#pragma once

#include <cstdint>
#include <string_view>

namespace kevra_cpu {

extern const std::string_view device_text;
extern const uint64_t device_version;

}  // namespace kevra_cpu
