#include "compiler/temporary_folder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace kevra_cpu {

TemporaryFolder::TemporaryFolder() {
  std::error_code error;
  std::string path = std::filesystem::temp_directory_path(error).string();
  path = (error ? "/tmp" : path) + "/kevra-compile-XXXXXX";
  if (mkdtemp(path.data()) == nullptr)
    throw std::runtime_error("no folder for temporary files can be made at " + path +
                             "; point TMPDIR to one that can be written");
  path_ = path;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void write_file(const std::string& path, std::string_view text) {
  std::ofstream file(path, std::ios::binary);
  file.write(text.data(), static_cast<std::streamsize>(text.size()));
  if (!file.flush()) throw std::runtime_error("cannot write " + path + "; is the disk full?");
}

std::vector<std::byte> read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) return {};
  std::vector<std::byte> bytes(static_cast<size_t>(file.tellg()));
  file.seekg(0).read(reinterpret_cast<char*>(bytes.data()),
                     static_cast<std::streamsize>(bytes.size()));
  return bytes;
}

}  // namespace kevra_cpu
