#include "rocm/context.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <stdexcept>

#include "codegen/backend.h"
#include "cuda_like/device.h"
#include "rocm/debug.h"
#include "rocm/hip_dl.h"

namespace kevra {

std::recursive_mutex runtime_mutex;

namespace {

int availability_state = -1;
std::atomic<bool> deterministic_flag{false};
std::atomic<bool> forked_after_use{false};
// Stands in where the runtime does not tell the current one: a device's tables stay its own.
thread_local int selected_device = -1;

// The record that hipGetDevicePropertiesR0600 fills, and where its texts stand.
constexpr size_t kPropertiesBytes = 1472;
constexpr size_t kNameOffset = 0;
constexpr size_t kArchOffset = 1160;
constexpr size_t kTextBytes = 256;

std::string property_text(int dev, size_t offset) {
  std::array<char, kPropertiesBytes> properties{};
  if (hip_dl::api().GetDevicePropertiesR0600(properties.data(), dev) != 0) return "";
  const std::string field(properties.data() + offset, kTextBytes);
  return field.substr(0, field.find('\0'));
}

int attribute_or_zero(int attribute, int dev) {
  int value = 0;
  const int err = hip_dl::api().DeviceGetAttribute(&value, attribute, dev);
  return err != 0 || value < 0 ? 0 : value;
}

// A fork copies one thread, and the runtime needs the others: a call in the child could wait for
// one of them forever.
void watch_for_forks() {
  pthread_atfork(nullptr, nullptr, [] { forked_after_use = true; });
}

bool find_device() {
  hip_dl::Table scratch{};
  if (!hip_dl::probe(scratch) || scratch.Init(0) != 0) return false;
  int count = 0;
  if (scratch.GetDeviceCount(&count) != 0 || count < 1) return false;
  watch_for_forks();
  return true;
}

}  // namespace

bool available() {
  std::lock_guard lock(runtime_mutex);
  if (availability_state == -1) availability_state = find_device() ? 1 : 0;
  return availability_state == 1;
}

int availability() {
  std::lock_guard lock(runtime_mutex);
  return availability_state;
}

void check_hip(int err, const char* file, int line, const char* expr, const char* context) {
  if (err == 0) return;
  std::string text = std::string(file) + ":" + std::to_string(line) + ": " + expr;
  if (context != nullptr) text += std::string(" [") + context + "]";
  const char* words = hip_dl::api().GetErrorString(err);
  throw std::runtime_error(text + " failed: " + (words != nullptr ? words : "unknown HIP error"));
}

void check_device(int status, const char* file, int line, const char* expr, const char* context) {
  check_hip(status, file, line, expr, context);
}

int device_count() {
  if (!available()) return 0;
  int count = 0;
  return hip_dl::api().GetDeviceCount(&count) == 0 ? count : 0;
}

std::string device_name(int dev) {
  return property_text(dev, kNameOffset);
}

std::string device_arch(int dev) {
  const std::string arch = property_text(dev, kArchOffset);
  return arch.substr(0, arch.find(':'));
}

bool forked() {
  return forked_after_use;
}

int select_device(int dev_id) {
  std::lock_guard lock(runtime_mutex);
  if (forked()) {
    throw std::runtime_error(
        "kevra: this process was forked from one that had used the GPU already, whose runtime does "
        "not work on in it; fork before the first call, or start processes by multiprocessing's "
        "\"spawn\" or \"forkserver\"");
  }
  if (!available()) throw std::runtime_error("no HIP device available");
  KEVRA_CHECK(::kevra::hip_dl::api().SetDevice(dev_id));
  selected_device = dev_id;
  return dev_id;
}

int current_device() {
  int device = -1;
  return hip_dl::api().GetDevice(&device) == 0 ? device : selected_device;
}

int device_shared_limit(int dev) {
  constexpr int kLimitWhenUntold = 49152;
  int bytes = 0;
  const int err = hip_dl::api().DeviceGetAttribute(&bytes, hip_dl::kAttributeSharedPerBlock, dev);
  return err != 0 || bytes < 1 ? kLimitWhenUntold : bytes;
}

int device_multiprocessors(int dev) {
  return attribute_or_zero(hip_dl::kAttributeMultiprocessors, dev);
}

int device_cache_bytes(int dev) {
  return attribute_or_zero(hip_dl::kAttributeCacheBytes, dev);
}

int device_wave_size(int dev) {
  constexpr int kWaveWhenUntold = 64;
  int threads = 0;
  const int err = hip_dl::api().DeviceGetAttribute(&threads, hip_dl::kAttributeWaveSize, dev);
  return err != 0 || threads < 1 ? kWaveWhenUntold : threads;
}

void check_shared(size_t bytes, int dev, const char* name) {
  if (bytes > static_cast<size_t>(device_shared_limit(dev))) {
    throw std::invalid_argument(std::string(name) + " exceeds the device shared-memory limit");
  }
}

void launch_kernel(kernel_t fn, unsigned gx, unsigned gy, unsigned block, size_t shared,
                   void** args, const char* name, stream_t stream) {
  constexpr unsigned kGridYLimit = 65536;
  if (gy >= kGridYLimit) {
    throw std::runtime_error(std::string(name) + ": batch exceeds grid.y limit");
  }
  const auto start = debug::level() > 0 ? debug::Clock::now() : debug::Clock::time_point{};
  KEVRA_CHECK_IN(::kevra::hip_dl::api().ModuleLaunchKernel(fn, gx, gy, 1, block, 1, 1, shared,
                                                           stream, args, nullptr),
                 name);
  debug::launched(fn, name, gx, gy, block, shared, stream, start);
}

const codegen::Backend& backend() {
  static const auto* dialect = new codegen::HipBackend;
  return *dialect;
}

void set_deterministic(bool on) {
  deterministic_flag = on;
}
bool deterministic() {
  return deterministic_flag;
}

}  // namespace kevra
