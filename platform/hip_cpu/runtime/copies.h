// Copies and fills as the caller gives them, checked and made ready for a queue.
#pragma once

#include "platform/common/abi.h"
#include "runtime/command.h"

namespace kevra_cpu {

// Which sides of a copy are device addresses by the function's contract.
struct DeviceSides {
  bool destination = false, source = false;
};

// 0, or 1 for a null pointer or a range that runs past the allocation it begins in. In check
// mode a device side must lie in a live allocation as well.
int check_copy(const Copy& copy, DeviceSides sides);
int check_fill(const Fill& fill);

Copy plain_copy(void* destination, const void* source, size_t bytes);

// 0, or 1 for a record that asks for arrays, unknown memory types or rows wider than a pitch.
int read_copy_2d(const kevra_platform::Copy2DRecord& record, Copy* out, DeviceSides* sides);

}  // namespace kevra_cpu
