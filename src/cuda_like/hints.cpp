#include "cuda_like/hints.h"

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <unordered_map>

#include "cuda_like/device.h"
#include "cuda_like/hash.h"

namespace kevra {
namespace {

std::unordered_map<uint64_t, ShapeHint>& hints() {  // under runtime_mutex
  static auto* table = new std::unordered_map<uint64_t, ShapeHint>;
  return *table;
}

std::atomic<uint64_t> epoch{0};

std::optional<HintOp> hint_op(const std::string& op) {
  static const std::map<std::string, HintOp> codes{
      {"stft", HintOp::kStft}, {"istft", HintOp::kIstft}, {"mel", HintOp::kMel},
      {"fft", HintOp::kFft},   {"rfft", HintOp::kRfft},   {"cqt", HintOp::kCqt}};
  const auto it = codes.find(op);
  return it == codes.end() ? std::nullopt : std::optional(it->second);
}

bool has_form(HintOp op) {
  return op == HintOp::kStft || op == HintOp::kMel || op == HintOp::kCqt;
}

}  // namespace

int output_form(const std::string& output) {
  return output == "magnitude" ? 1 : output == "power" ? 2 : output == "db" ? 3 : 0;
}

uint64_t hint_key(const HintShape& s) {
  // Shifts run on unsigned values: a device or width out of range must not be undefined.
  uint32_t u = (static_cast<uint32_t>(s.device) << 8) | static_cast<uint32_t>(s.bits);
  u = (u << 4) | static_cast<uint32_t>(s.form);
  u = u * 2 | (s.center ? 1u : 0u);
  u = (u << 4) | static_cast<uint32_t>(s.op);
  const auto extended = [](int value) {
    return static_cast<uint64_t>(static_cast<int64_t>(value));
  };
  uint64_t h = combine(0x5a9d, extended(static_cast<int32_t>(u)));
  for (int value : {s.n, s.hop, s.extra}) h = combine(h, extended(value));
  return h;
}

bool hint_lookup(uint64_t key, ShapeHint* out) {
  std::lock_guard lock(runtime_mutex);
  const auto it = hints().find(key);
  *out = it == hints().end() ? ShapeHint{} : it->second;
  return it != hints().end();
}

void set_shape_hint(const std::string& op, HintShape shape, const std::string& output,
                    const ShapeHint& hint) {
  const std::optional<HintOp> code = hint_op(op);
  if (!code) throw std::invalid_argument("set_shape_hint: op must be stft/istft/mel/fft/rfft/cqt");
  shape.op = *code;
  shape.form = has_form(*code) ? output_form(output) : 0;
  const uint64_t key = hint_key(shape);
  std::lock_guard lock(runtime_mutex);
  hints()[key] = hint;
  ++epoch;
}

void shape_hint_clear() {
  std::lock_guard lock(runtime_mutex);
  hints().clear();
  ++epoch;
}

uint64_t shape_epoch() {
  return epoch.load(std::memory_order_acquire);
}

}  // namespace kevra
