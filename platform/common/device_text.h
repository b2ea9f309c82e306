// The text in front of every kernel, and the version of the device's compiler: a hash of that
// text and of the compiler's own sources. Code objects of another version are refused. Both come
// from the build (embed.cmake).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kevra_platform {

extern const std::string_view device_text;
extern const uint64_t device_version;

// The device's text with a kernel's behind it, in which errors name the kernel's own lines as
// those of a file `name`.
std::string with_device_text(const std::string& name, std::string_view kernels);

}  // namespace kevra_platform
