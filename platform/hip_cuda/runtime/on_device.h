// What the exported functions that work on the calling thread's device have around them.
#pragma once

#include "driver/device.h"
#include "platform/common/entry.h"

namespace kevra_cuda {

// Runs `body` with the driver once the calling thread has a device. The driver's codes are HIP's
// codes: the two interfaces number them alike.
template <typename Body>
int on_device(const char* name, Body body) noexcept {
  return kevra_platform::entry(name, [&]() -> int {
    int index = 0;
    if (const int failed = current_device(&index)) return failed;
    return body(*driver());
  });
}

}  // namespace kevra_cuda
