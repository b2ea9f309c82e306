#include "platform/common/image.h"

#include <elf.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/common/abi.h"
#include "platform/common/hash.h"

namespace kevra_platform {
namespace {

constexpr size_t largest_image = size_t(256) << 20;

struct Trailer {
  char maker[8] = {};
  uint64_t version = 0;
  char architecture[104] = {};
  uint64_t checksum = 0;  // over the ELF file and all of the trailer before this
};
static_assert(sizeof(Trailer) == 128);

// Copies memory that may not be there: the length of an image stands in the image itself, and a
// damaged one must not take the process down.
bool copy_bytes(void* out, const void* from, size_t bytes) {
  const iovec local{out, bytes}, remote{const_cast<void*>(from), bytes};
  const ssize_t copied = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
  if (copied < 0 && (errno == ENOSYS || errno == EPERM)) {  // a sandbox without that call
    std::memcpy(out, from, bytes);
    return true;
  }
  return copied == static_cast<ssize_t>(bytes);
}

// The length of the ELF file from its own header: one of its two tables is the last thing in it.
// 0 when the header is no header.
size_t elf_bytes(const Elf64_Ehdr& header) {
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64 ||
      header.e_shentsize != sizeof(Elf64_Shdr) || header.e_shoff < sizeof header ||
      header.e_shoff > largest_image || header.e_phoff > largest_image)
    return 0;
  return std::max(header.e_shoff + size_t(header.e_shnum) * header.e_shentsize,
                  header.e_phoff + size_t(header.e_phnum) * header.e_phentsize);
}

uint64_t checksum(const std::vector<std::byte>& elf, const Trailer& trailer) {
  const auto text = [](const void* bytes, size_t count) {
    return std::string_view(static_cast<const char*>(bytes), count);
  };
  const uint64_t hash = hash_text(text(elf.data(), elf.size()));
  return hash_text(text(&trailer, offsetof(Trailer, checksum)), hash);
}

Trailer trailer_for(const std::vector<std::byte>& elf, const ImageTag& tag) {
  Trailer trailer;
  tag.maker.copy(trailer.maker, sizeof trailer.maker);
  trailer.version = tag.version;
  tag.architecture.copy(trailer.architecture, sizeof trailer.architecture - 1);
  trailer.checksum = checksum(elf, trailer);
  return trailer;
}

}  // namespace

std::vector<std::byte> make_image(std::vector<std::byte> elf, const ImageTag& tag) {
  Elf64_Ehdr header;
  if (elf.size() < sizeof header) return {};
  std::memcpy(&header, elf.data(), sizeof header);
  if (elf_bytes(header) != elf.size()) return {};
  const Trailer trailer = trailer_for(elf, tag);
  const auto* bytes = reinterpret_cast<const std::byte*>(&trailer);
  elf.insert(elf.end(), bytes, bytes + sizeof trailer);
  return elf;
}

int open_image(const void* image, const ImageTag& expected, std::vector<std::byte>* elf) {
  Elf64_Ehdr header;
  if (image == nullptr || !copy_bytes(&header, image, sizeof header)) return invalid_image;
  const size_t bytes = elf_bytes(header);
  if (bytes == 0) return invalid_image;
  Trailer trailer;
  if (!copy_bytes(&trailer, static_cast<const std::byte*>(image) + bytes, sizeof trailer) ||
      expected.maker != std::string_view(trailer.maker, sizeof trailer.maker))
    return invalid_image;
  elf->resize(bytes);
  if (!copy_bytes(elf->data(), image, bytes) || checksum(*elf, trailer) != trailer.checksum)
    return invalid_image;
  const Trailer wanted = trailer_for(*elf, expected);
  return std::memcmp(&trailer, &wanted, sizeof trailer) == 0 ? success : no_binary_for_device;
}

}  // namespace kevra_platform
