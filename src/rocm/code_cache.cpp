#include "rocm/code_cache.h"

#include <elf.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>

#include "environment.h"

namespace fs = std::filesystem;

namespace kevra {
namespace {

// A header read past the end of a short file must find zeros, not foreign memory.
constexpr size_t kPadding = 4096;

fs::path cache_root() {
  if (auto root = environment::cache_dir()) return *root;
  std::error_code failed;
  fs::path temp = fs::temp_directory_path(failed);
  return (failed ? fs::path("/tmp") : temp) / "kevra_cache";
}

// Whether [offset, offset + count * size) lies inside a file of `bytes` bytes.
bool inside(uint64_t offset, uint64_t count, uint64_t size, size_t bytes) {
  return offset <= bytes && (size == 0 || count <= (bytes - offset) / size);
}

// A driver trusts the tables of the ELF file that it is given, so a file that a full disk or an
// interrupted copy cut short must not reach it.
bool cut_short(const CodeObject& code) {
  if (std::memcmp(code.padded.data(), ELFMAG, SELFMAG) != 0) return false;
  Elf64_Ehdr head;
  std::memcpy(&head, code.padded.data(), sizeof head);
  if (head.e_ident[EI_CLASS] != ELFCLASS64) return false;
  if (!inside(head.e_shoff, head.e_shnum, head.e_shentsize, code.bytes) ||
      !inside(head.e_phoff, head.e_phnum, sizeof(Elf64_Phdr), code.bytes)) {
    return true;
  }
  for (size_t i = 0; i < head.e_phnum; ++i) {
    Elf64_Phdr segment;
    std::memcpy(&segment, code.padded.data() + head.e_phoff + i * sizeof segment, sizeof segment);
    if (!inside(segment.p_offset, 1, segment.p_filesz, code.bytes)) return true;
  }
  return false;
}

bool write_file(const std::string& path, const std::vector<char>& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  return static_cast<bool>(file);
}

}  // namespace

std::string kernel_cache_folder() {
  return (cache_root() / "kernels").string();
}

std::string kernel_cache_path(uint64_t hash, const std::string& arch) {
  const fs::path folder = kernel_cache_folder();
  std::error_code ignored;
  fs::create_directories(folder, ignored);
  char name[112];
  std::snprintf(name, sizeof name, "%016llx_%s.hsaco", static_cast<unsigned long long>(hash),
                arch.c_str());
  return (folder / name).string();
}

std::optional<CodeObject> read_code_object(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  CodeObject code;
  // read() reports a folder in the file's place, or a bad disk, where stream iterators throw.
  std::array<char, 65536> part;
  do {
    file.read(part.data(), part.size());
    code.padded.insert(code.padded.end(), part.begin(), part.begin() + file.gcount());
  } while (file);
  code.bytes = code.padded.size();
  code.padded.resize(code.bytes + kPadding);
  if (file.bad() || code.bytes == 0 || cut_short(code)) return std::nullopt;
  return code;
}

void write_code_object(const std::string& path, const std::vector<char>& code) noexcept {
  static std::atomic<uint32_t> counter{0};
  try {
    const std::string temp =
        path + ".tmp" + std::to_string(getpid()) + "_" + std::to_string(counter.fetch_add(1));
    std::error_code failed;
    if (write_file(temp, code)) {
      fs::rename(temp, path, failed);
      if (!failed) return;
    }
    fs::remove(temp, failed);
  } catch (const std::exception&) {
    // Out of host memory for a path: the run goes on from the object in memory.
  }
}

}  // namespace kevra
