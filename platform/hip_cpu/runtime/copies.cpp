#include "runtime/copies.h"

#include "common/settings.h"
#include "runtime/memory.h"

using namespace kevra_platform;

namespace kevra_cpu {
namespace {

bool range_fits(const void* begin, size_t bytes, bool device_side) {
  if (!begin) return false;
  const auto address = reinterpret_cast<uintptr_t>(begin);
  Allocation block;
  if (!find_allocation(address, &block)) return !(device_side && settings().check);
  return bytes <= block.base + block.bytes - address;
}

// Bytes from the first of the first row to behind the last of the last; false on overflow.
bool span_of(size_t width, size_t height, size_t pitch, size_t* out) {
  return !__builtin_mul_overflow(height - 1, pitch, out) &&
         !__builtin_add_overflow(*out, width, out);
}

struct Place {
  std::byte* address = nullptr;
  size_t pitch = 0;
  bool device = false;
};

bool read_side(const CopySide& side, size_t width, Place* out) {
  if (side.array || side.memory_type > memory_managed) return false;
  const bool host = side.memory_type == memory_host;
  auto* base = static_cast<std::byte*>(host ? side.host : side.device);
  const size_t row = side.x_bytes + width;
  out->pitch = side.pitch == 0 ? row : side.pitch;
  if (row < width || row > out->pitch || !base) return false;
  size_t offset = 0;
  if (__builtin_mul_overflow(side.y, out->pitch, &offset)) return false;
  if (__builtin_add_overflow(offset, side.x_bytes, &offset)) return false;
  out->address = base + offset;
  out->device = side.memory_type == memory_device;
  return true;
}

}  // namespace

int check_copy(const Copy& copy, DeviceSides sides) {
  size_t written = 0, read = 0;
  const bool fits = span_of(copy.width, copy.height, copy.destination_pitch, &written) &&
                    span_of(copy.width, copy.height, copy.source_pitch, &read) &&
                    range_fits(copy.destination, written, sides.destination) &&
                    range_fits(copy.source, read, sides.source);
  return fits ? success : invalid_value;
}

int check_fill(const Fill& fill) {
  return range_fits(fill.destination, fill.bytes, true) ? success : invalid_value;
}

Copy plain_copy(void* destination, const void* source, size_t bytes) {
  return {.destination = static_cast<std::byte*>(destination),
          .source = static_cast<const std::byte*>(source),
          .destination_pitch = bytes,
          .source_pitch = bytes,
          .width = bytes,
          .height = 1};
}

int read_copy_2d(const Copy2DRecord& record, Copy* out, DeviceSides* sides) {
  Place source, destination;
  if (!read_side(record.source, record.width_bytes, &source)) return invalid_value;
  if (!read_side(record.destination, record.width_bytes, &destination)) return invalid_value;
  *out = {.destination = destination.address,
          .source = source.address,
          .destination_pitch = destination.pitch,
          .source_pitch = source.pitch,
          .width = record.width_bytes,
          .height = record.height};
  *sides = {.destination = destination.device, .source = source.device};
  return success;
}

}  // namespace kevra_cpu
