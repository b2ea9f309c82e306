#include "cuda_like/tables.h"

#include <bit>
#include <cstdio>
#include <map>
#include <mutex>
#include <utility>

#include "cuda_like/hash.h"

namespace kevra {
namespace {

// All stores stand under runtime_mutex, only grow, and outlive every caller.
using NamedStore = std::map<std::pair<int, std::string>, devptr_t>;
using KeyedStore = std::map<std::pair<int, uint64_t>, devptr_t>;

template <class Store>
Store& forever() {
  static auto* store = new Store;
  return *store;
}

template <class T>
struct TypedStore : NamedStore {};

}  // namespace

devptr_t device_table(const std::string& name, const void* data, size_t bytes) {
  std::lock_guard lock(runtime_mutex);
  devptr_t& entry = forever<NamedStore>()[{current_device(), name}];
  if (entry == nullptr) {
    DeviceBuffer block = DeviceBuffer::for_good(bytes);
    devptr_t p = block.p;
    KEVRA_CHECK(memcpyHtoD(p, data, bytes));
    entry = block.release();
  }
  return entry;
}

devptr_t content_table(const void* data, size_t count, size_t size) {
  char name[64];
  std::snprintf(name, sizeof name, "win_%016llx_%zu_%zu",
                static_cast<unsigned long long>(content_hash(data, count * size)), count, size);
  return device_table(name, data, count * size);
}

template <class T>
devptr_t device_vector_table(const std::string& name,
                             const std::function<std::vector<T>()>& source) {
  std::lock_guard lock(runtime_mutex);
  devptr_t& entry = forever<TypedStore<T>>()[{current_device(), name}];
  if (entry == nullptr) {
    const std::vector<T> vec = source();
    DeviceBuffer block = DeviceBuffer::for_good(vec.size() * sizeof(T));
    devptr_t p = block.p;
    KEVRA_CHECK(memcpyHtoD(p, vec.data(), vec.size() * sizeof(vec[0])));
    entry = block.release();
  }
  return entry;
}

template devptr_t device_vector_table(const std::string&,
                                      const std::function<std::vector<int32_t>()>&);
template devptr_t device_vector_table(const std::string&,
                                      const std::function<std::vector<uint16_t>()>&);
template devptr_t device_vector_table(const std::string&,
                                      const std::function<std::vector<float>()>&);
template devptr_t device_vector_table(const std::string&,
                                      const std::function<std::vector<double>()>&);

devptr_t device_table_built(uint64_t key, const std::function<devptr_t()>& builder) {
  std::lock_guard lock(runtime_mutex);
  const std::pair slot{current_device(), key};
  KeyedStore& store = forever<KeyedStore>();
  if (const auto it = store.find(slot); it != store.end()) return it->second;
  devptr_t p = builder();
  store.emplace(slot, p);
  KEVRA_CHECK(deviceSynchronize());
  return p;
}

uint16_t float_to_half(float value) {
  const uint32_t bits = std::bit_cast<uint32_t>(value);
  const uint16_t sign = static_cast<uint16_t>((bits >> 16) & 0x8000);
  const uint32_t magnitude = bits & 0x7fffffff;
  if (magnitude > 0x7f800000) return 0x7e00;          // NaN
  if (magnitude >= 0x477ff000) return sign | 0x7c00;  // rounds past the largest half
  if (magnitude <= 0x33000000) return sign;           // at most half the least subnormal

  const int exponent = static_cast<int>(magnitude >> 23) - 127;
  // A subnormal half keeps fewer bits of the significand, whose leading 1 is then explicit.
  const int dropped = exponent < -14 ? 13 + (-14 - exponent) : 13;
  const uint32_t significand = (magnitude & 0x7fffff) | 0x800000;
  uint32_t kept = significand >> dropped;
  const uint32_t rest = significand & ((1u << dropped) - 1);
  const uint32_t tie = 1u << (dropped - 1);
  if (rest > tie || (rest == tie && (kept & 1) != 0)) ++kept;
  // The leading 1 of a normal number adds itself to the exponent field.
  const uint32_t base = exponent < -14 ? 0 : static_cast<uint32_t>(exponent + 14) << 10;
  return static_cast<uint16_t>(sign | (base + kept));
}

std::vector<uint16_t> float_to_half(const std::vector<float>& values) {
  std::vector<uint16_t> patterns;
  patterns.reserve(values.size());
  for (float v : values) patterns.push_back(float_to_half(v));
  return patterns;
}

}  // namespace kevra
