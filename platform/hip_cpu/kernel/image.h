// The code object that travels through caches: an ELF shared object with a trailer behind it that
// says what it was made for and proves that it is whole.
#pragma once

#include <cstddef>
#include <vector>

namespace kevra_cpu {

// The image of a freshly linked shared object; empty when `elf` is none.
std::vector<std::byte> make_image(std::vector<std::byte> elf);

// The shared object of an image whose length nobody told. 0; 200 when it is damaged or not ours;
// 209 when it was made for another processor, mode or version of the device.
int open_image(const void* image, std::vector<std::byte>* elf);

}  // namespace kevra_cpu
