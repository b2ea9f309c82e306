#include "kernel/race_detector.h"

#include <sys/mman.h>

#include <algorithm>
#include <new>
#include <utility>

namespace kevra_cpu {

void SharedRaces::begin_block(unsigned threads) {
  groups_ = (threads + group_size - 1) / group_size;
  pass_barrier();
}

void SharedRaces::pass_barrier() {
  if (next_ + groups_ * group_size * 2 >= ShadowByte::actor_limit) {
    std::fill(shadow_.begin(), shadow_.end(), ShadowByte());
    next_ = group_size;
  }
  base_ = next_;
  group_of_.clear();
  round_.resize(groups_);
  for (unsigned group = 0; group < groups_; ++group) round_[group] = new_round(group);
}

void SharedRaces::pass_shuffle(unsigned group) {
  if (next_ + group_size < ShadowByte::actor_limit) round_[group] = new_round(group);
}

uint32_t SharedRaces::new_round(unsigned group) {
  group_of_.push_back(group);
  return std::exchange(next_, next_ + group_size);
}

Race SharedRaces::note(size_t offset, unsigned bytes, unsigned thread, Access access) {
  if (shadow_.size() < offset + bytes) shadow_.resize(offset + bytes);
  const unsigned group = thread / group_size;
  const uint32_t round = round_[group], actor = round + thread % group_size;
  const auto group_of = [&](uint32_t other) { return group_of_[(other - base_) / group_size]; };
  for (unsigned i = 0; i < bytes; ++i) {
    ShadowByte& byte = shadow_[offset + i];
    const ShadowByte old = byte;
    const bool fine = note_access(
        byte, actor, access,
        [&](uint32_t other, bool many) {
          return other < base_ || (!many && other < round && group_of(other) == group);
        },
        [&](uint32_t other) { return other - round < group_size; });
    if (!fine)
      return {true, group_of(old.actor()) * group_size + old.actor() % group_size, old.state()};
  }
  return {};
}

DeviceRaces::Shadow::Shadow(uintptr_t base, size_t bytes) : base_(base), bytes_(bytes) {
  void* memory = mmap(nullptr, bytes * sizeof(ShadowByte), PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  states_ = static_cast<ShadowByte*>(memory);
}

DeviceRaces::Shadow::Shadow(Shadow&& other) noexcept
    : base_(other.base_), bytes_(other.bytes_), states_(std::exchange(other.states_, nullptr)) {}

DeviceRaces::Shadow::~Shadow() {
  if (states_ != nullptr) munmap(states_, bytes_ * sizeof(ShadowByte));
}

void DeviceRaces::begin_launch(uint64_t blocks) {
  const auto count = static_cast<uint32_t>(std::min<uint64_t>(blocks, ShadowByte::actor_limit / 2));
  if (next_ + count >= ShadowByte::actor_limit) {
    shadows_.clear();
    last_ = nullptr;
    next_ = 1;
  }
  base_ = next_;
  next_ += count;
}

DeviceRaces::Shadow& DeviceRaces::shadow(uintptr_t base, size_t total) {
  if (last_ != nullptr && last_->base() == base && last_->bytes() == total) return *last_;
  auto found = shadows_.find(base);
  if (found != shadows_.end() && found->second.bytes() != total) {
    shadows_.erase(found);
    found = shadows_.end();
  }
  if (found == shadows_.end()) found = shadows_.emplace(base, Shadow(base, total)).first;
  return *(last_ = &found->second);
}

Race DeviceRaces::note(uintptr_t base, size_t total, uintptr_t address, unsigned bytes,
                       uint64_t block, Access access) {
  ShadowByte* states = shadow(base, total).at(address);
  const uint32_t actor = base_ + static_cast<uint32_t>(block % (ShadowByte::actor_limit / 2));
  for (unsigned i = 0; i < bytes; ++i) {
    const ShadowByte old = states[i];
    const bool fine = note_access(
        states[i], actor, access, [&](uint32_t other, bool) { return other < base_; },
        [](uint32_t) { return false; });
    if (!fine) return {true, old.actor() - base_, old.state()};
  }
  return {};
}

}  // namespace kevra_cpu
