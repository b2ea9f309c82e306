// Code objects on disk: <root>/kernels/<16 hex digits>_<architecture>.hsaco. The only state that
// outlives a process; safe to delete at any time, never pruned.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kevra {

// Bytes of a code object, followed by zeros: drivers take no length and read the file's own
// headers.
struct CodeObject {
  std::vector<char> padded;
  size_t bytes = 0;
};

// The folder that holds the objects now.
std::string kernel_cache_folder();
std::string kernel_cache_path(uint64_t hash, const std::string& arch);

// None when the file is missing, unreadable, empty or cut short.
std::optional<CodeObject> read_code_object(const std::string& path);

// Writes through a temporary file and a rename, so that a reader sees a whole file or none and the
// last of several writers wins. A cache that cannot be written costs a compile in the next
// process, nothing else.
void write_code_object(const std::string& path, const std::vector<char>& code) noexcept;

}  // namespace kevra
