// FNV-1a, for names and checksums.
#pragma once

#include <cstdint>
#include <string_view>

namespace kevra_platform {

constexpr uint64_t hash_seed = 0xcbf29ce484222325;

constexpr uint64_t hash_text(std::string_view text, uint64_t hash = hash_seed) {
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return hash;
}

}  // namespace kevra_platform
