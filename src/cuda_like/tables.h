// Constant arrays in device memory, uploaded once a device and never evicted. A name, or a key,
// must capture everything that shapes the content; the device is added here. Every table belongs
// to the device that is current when it is asked for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cuda_like/device.h"

namespace kevra {

// The table of that name, uploaded at the first call. `data` is not read on a hit.
devptr_t device_table(const std::string& name, const void* data, size_t bytes);

// The table of `count` elements of `size` bytes under a name made from them, so that equal content
// shares its memory, however it was asked for.
devptr_t content_table(const void* data, size_t count, size_t size);

// device_table for a vector that is costly to make: `source` runs on a miss only. One store an
// element type: int32_t, float, double, and uint16_t for half patterns.
template <class T>
devptr_t device_vector_table(const std::string& name,
                             const std::function<std::vector<T>()>& source);

// The table behind a 64-bit key. `builder` runs on a miss, as a rule asks device_table, and is
// followed by a wait for the device: the one step of a resident call that may block.
devptr_t device_table_built(uint64_t key, const std::function<devptr_t()>& builder);

// Half patterns: round to nearest even, infinity on overflow, NaN as 0x7E00, and zero with the
// sign below the subnormal range.
uint16_t float_to_half(float value);
std::vector<uint16_t> float_to_half(const std::vector<float>& values);

}  // namespace kevra
