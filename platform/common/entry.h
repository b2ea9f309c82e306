// What every exported function has around it.
#pragma once

#include <new>
#include <system_error>

#include "platform/common/abi.h"
#include "platform/common/faults.h"

namespace kevra_platform {

// Runs `body` unless the call is to fail on demand. No exception crosses the C boundary.
template <typename Body>
int entry(const char* name, Body body) noexcept {
  try {
    if (const int code = injected_failure(name)) return code;
    return body();
  } catch (const std::bad_alloc&) {
    return out_of_memory;
  } catch (const std::system_error&) {
    return out_of_memory;  // no thread to be had
  } catch (...) {
    return unknown_error;
  }
}

}  // namespace kevra_platform
