#include "cuda_like/staged.h"

#include <cstring>

namespace kevra {

DeviceBuffer upload_staged(const void* host, size_t bytes) {
  DeviceBuffer b(bytes, nullptr);
  PinnedBlock s(bytes);
  std::memcpy(s.p, host, bytes);
  KEVRA_CHECK(memcpyHtoD(b.p, s.p, bytes));
  return b;
}

}  // namespace kevra
