// The code object that travels through caches: an ELF file with a trailer behind it that says
// what it was made for and proves that it is whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kevra_platform {

// What a code object is made for, and what a device asks of one.
struct ImageTag {
  std::string_view maker;    // eight letters, one device's own
  uint64_t version = 0;      // of the text in front of every kernel
  std::string architecture;  // at most 103 letters count
};

// The image of a freshly linked ELF file; empty when `elf` is none.
std::vector<std::byte> make_image(std::vector<std::byte> elf, const ImageTag& tag);

// The ELF file of an image whose length nobody told. 0; 200 when it is damaged or another
// maker's; 209 when it is of another version or for another architecture.
int open_image(const void* image, const ImageTag& expected, std::vector<std::byte>* elf);

}  // namespace kevra_platform
