// A folder for one compile, gone with everything in it when the compile ends.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kevra_cpu {

class TemporaryFolder {
 public:
  TemporaryFolder();  // throws std::runtime_error when none can be made
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string file(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void write_file(const std::string& path, std::string_view text);  // throws std::runtime_error
std::vector<std::byte> read_file(const std::string& path);        // empty when there is none

}  // namespace kevra_cpu
