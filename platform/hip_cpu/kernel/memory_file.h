// A file without a name, gone when it is closed.
#pragma once

#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kevra_cpu {

class MemoryFile {
 public:
  explicit MemoryFile(const char* label) : descriptor_(memfd_create(label, MFD_CLOEXEC)) {}
  ~MemoryFile() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  int descriptor() const { return descriptor_; }  // below 0 when there is no such file

  bool write(const std::vector<std::byte>& bytes) const {
    for (size_t done = 0; done < bytes.size();) {
      const ssize_t wrote = ::write(descriptor_, bytes.data() + done, bytes.size() - done);
      if (wrote <= 0) return false;
      done += static_cast<size_t>(wrote);
    }
    return true;
  }

  std::string text() const {
    std::string text;
    char buffer[4096];
    for (;;) {
      const ssize_t got =
          pread(descriptor_, buffer, sizeof buffer, static_cast<off_t>(text.size()));
      if (got <= 0) return text;
      text.append(buffer, static_cast<size_t>(got));
    }
  }

 private:
  int descriptor_;
};

}  // namespace kevra_cpu
