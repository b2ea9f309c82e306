// The HIP codes, flags and records that cross the C boundary (64-bit Linux).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#define KEVRA_HIP_EXPORT extern "C" __attribute__((visibility("default")))

namespace kevra_platform {

enum Status : int {
  success = 0,
  invalid_value = 1,
  out_of_memory = 2,
  no_device = 100,
  invalid_device = 101,
  invalid_image = 200,
  no_binary_for_device = 209,
  invalid_handle = 400,
  illegal_state = 401,
  not_found = 500,
  not_ready = 600,
  launch_failure = 719,
  capture_unsupported = 900,
  capture_invalidated = 901,
  capture_isolation = 905,
  captured_event = 907,
  unknown_error = 999,
};

const char* status_text(int code);

enum Attribute : int {
  attribute_l2_cache_bytes = 19,
  attribute_multiprocessors = 63,
  attribute_shared_bytes_per_block = 74,
  attribute_warp_size = 87,
};

constexpr unsigned stream_non_blocking = 1;
constexpr int capture_relaxed = 2;

struct DeviceProperties {
  char name[256];
  std::byte unused_a[32];
  uint64_t total_global_memory;
  std::byte unused_b[92];
  int32_t multiprocessors;
  std::byte unused_c[768];
  char architecture[256];
  std::byte unused_d[56];
};
static_assert(offsetof(DeviceProperties, total_global_memory) == 288);
static_assert(offsetof(DeviceProperties, multiprocessors) == 388);
static_assert(offsetof(DeviceProperties, architecture) == 1160);
static_assert(sizeof(DeviceProperties) == 1472);

// What a device tells of itself; the rest of the record is zero.
struct DeviceFacts {
  std::string_view name, architecture;
  uint64_t memory = 0;
  int multiprocessors = 0;
};
DeviceProperties make_properties(const DeviceFacts& facts);

enum MemoryType : uint32_t {
  memory_unregistered = 0,
  memory_host = 1,
  memory_device = 2,
  memory_managed = 3,
};

// One side of a 2-D copy. Arrays are not offered.
struct CopySide {
  size_t x_bytes, y;
  uint32_t memory_type, padding;
  void* host;
  void* device;
  void* array;
  size_t pitch;
};

struct Copy2DRecord {
  CopySide source, destination;
  size_t width_bytes, height;
};
static_assert(offsetof(CopySide, memory_type) == 16 && offsetof(CopySide, pitch) == 48);
static_assert(offsetof(Copy2DRecord, destination) == 56 && sizeof(Copy2DRecord) == 128);

}  // namespace kevra_platform
